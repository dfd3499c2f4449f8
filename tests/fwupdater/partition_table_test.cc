#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <vector>

#include "fw_test_files.h"
#include "fwupdater/marlo_fw_updater.h"
#include "support/log_capture.h"

namespace marlo::test {
namespace {

class PartitionTableTest : public ::testing::Test {
 protected:
  PartitionTableTest() {
    root.write(kImageDir + "flash.bin", "FLASH");
    root.write(kImageDir + "partition_1.bin", "PART1");
  }
  unsigned load() {
    updater.truncateFwResources();
    return updater.parsePartitionAndSaveFw(std::string(fw_image_dir) + partition_table_file);
  }
  const marlo_fw_resource& record(size_t i) { return *updater.firmwareResources().at(i); }

  TestRoot root;
  LogCapture log;
  marlo_fw_updater updater;
};

TEST_F(PartitionTableTest, AbsentChildrenCarryOverFromThePreviousPartition) {
  root.write(kImageDir + "boot.img", "BOOTIMAGE");
  write_table(root, R"(<Bank_1><Partition_table><no_of_partitions>1</no_of_partitions>
      <Partition><Offset>8192</Offset><img_id>5</img_id><Partition_Name>boot</Partition_Name>
        <Image_Path>boot.img</Image_Path><size>65536</size><HostSpecificInfo><PartType>3</PartType></HostSpecificInfo></Partition>
      <Partition><Partition_Name>second</Partition_Name></Partition>
    </Partition_table></Bank_1>)");
  ASSERT_EQ(load(), 1u);
  ASSERT_EQ(updater.firmwareResources().size(), 4u);  // the count element does not bound the walk
  EXPECT_TRUE(record(0).isErasable);

  // Every value but the name comes from the first partition, its image too.
  EXPECT_EQ(record(1).img_id, 5);
  EXPECT_EQ(record(1).offset, 8192);
  EXPECT_EQ(record(1).xml_size, 65536);
  EXPECT_EQ(record(1).partition_name, "second");
  EXPECT_EQ(as_string(record(1).data), "BOOTIMAGE");
  EXPECT_FALSE(record(1).isErasable);
}

TEST_F(PartitionTableTest, EachDistinctFileIsReadOnceAndItsBytesShared) {
  root.write(kImageDir + "big.bin", std::string(4096, 'b'));
  std::string partitions = "<Partition><img_id>5</img_id><Image_Path>big.bin</Image_Path></Partition>";
  for (int i = 0; i < 20; ++i) partitions += "<Partition><Offset>" + std::to_string(i) + "</Offset></Partition>";
  partitions +=
      "<Partition><Image_Path>./big.bin</Image_Path></Partition>"
      "<Partition><Image_Path>/big.bin</Image_Path></Partition>"
      "<Partition><Image_Path>partition_1.bin</Image_Path></Partition>"
      "<Partition><Image_Path>flash.bin</Image_Path></Partition>";
  write_table(root, "<Bank_1><Partition_table>" + partitions + "</Partition_table></Bank_1>");
  ASSERT_EQ(load(), 1u);
  const auto& records = updater.firmwareResources();
  ASSERT_EQ(records.size(), 27u);
  // However its path is written, big.bin is one buffer behind 23 records.
  for (size_t i = 0; i < 23; ++i) {
    EXPECT_EQ(records[i]->size, 4096u);
    EXPECT_EQ(records[i]->data.data(), records[0]->data.data()) << "record " << i;
  }
  EXPECT_EQ(as_string(records[22]->data), std::string(4096, 'b'));
  // partition_1.bin named in the table and as the fixed image: shared too.
  EXPECT_EQ(records[26]->data.data(), records[23]->data.data());
  EXPECT_EQ(as_string(records[26]->data), "PART1");
  // The flash image is patched with the platform facts: its bytes are its own.
  EXPECT_EQ(as_string(records[25]->data), "FLASH");
  EXPECT_NE(records[25]->data.data(), records[24]->data.data());
}

TEST_F(PartitionTableTest, MissingImagesAndImagesOverTheSizeCapGiveEmptyRecordsAndNoDownload) {
  const auto sparse = [&](const std::string& name, uintmax_t size) {
    root.write(kImageDir + name, "");
    std::filesystem::resize_file(root.at(kImageDir + name), size);  // no bytes on disk
  };
  const uintmax_t just_over = (uintmax_t{256} << 20) + 1;
  sparse("big.bin", just_over);
  sparse("flash.bin", just_over);
  write_table(root,
              "<Bank_1><Partition_table><Partition><img_id>5</img_id><Image_Path>big.bin</Image_Path></Partition>"
              "<Partition><img_id>9</img_id><Image_Path>missing.img</Image_Path></Partition>"
              "</Partition_table></Bank_1>");
  ASSERT_EQ(load(), 1u);
  ASSERT_EQ(updater.firmwareResources().size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(record(i).size, 0u) << "record " << i;
    EXPECT_TRUE(record(i).data.empty()) << "record " << i;
  }
  EXPECT_TRUE(log.contains("File too large : /vendor/firmware_mnt/image/big.bin is 268435457 bytes"));
  EXPECT_TRUE(log.contains("File open failed : /vendor/firmware_mnt/image/missing.img"));
  EXPECT_TRUE(log.contains("File too large : /vendor/firmware_mnt/image/./flash.bin is 268435457 bytes"));
  EXPECT_FALSE(updater.checkForFlashbin());
  EXPECT_TRUE(log.contains("flash.bin file is not found"));
  EXPECT_EQ(as_string(record(3).data), "PART1");
}

TEST_F(PartitionTableTest, MissingSectionsAndBrokenFiles) {
  struct Case {
    std::string table;
    unsigned loaded;
    std::vector<int> ids;  // of the records
  };
  const Case cases[] = {
      {"<Marlo><Bank_1/></Marlo>", 1, {1, 2}},  // no partitions: the fixed images only
      {"<Marlo><Bank_2><Partition_table/></Bank_2></Marlo>", 0, {}},
      {"<Marlo><Bank_1><Partition_table></Bank_1>", 0, {}},  // not well formed
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.table);
    root.write(kTablePath, c.table);
    EXPECT_EQ(load(), c.loaded);
    std::vector<int> ids;
    for (const auto& resource : updater.firmwareResources()) ids.push_back(resource->img_id);
    EXPECT_EQ(ids, c.ids);
  }
  EXPECT_TRUE(log.contains("XML Config File Not Opened"));
}

}  // namespace
}  // namespace marlo::test
