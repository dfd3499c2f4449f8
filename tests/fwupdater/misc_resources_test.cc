#include <gtest/gtest.h>

#include <filesystem>

#include "fw_test_files.h"
#include "fwupdater/marlo_fw_updater.h"

namespace marlo::test {
namespace {

const std::string kFirmware = "/vendor/bt_firmware/image/mrbtfw20.mbn";
const std::string kSettings = "/vendor/bt_firmware/image/mrnv20.bin";

TEST(MiscResourcesTest, FilesLoadInPathOrderAndMissingOnesTakeNoIndex) {
  TestRoot root;
  marlo_fw_updater updater;
  const auto& loaded = updater.miscResources();

  root.write(kSettings, "NV");
  EXPECT_EQ(updater.loadAndSaveMiscFw(), 1u);
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0]->index, 0u);
  EXPECT_EQ(loaded[0]->type, OFFLOAD_NV);
  EXPECT_EQ(loaded[0]->path, kSettings);
  EXPECT_EQ(as_string(loaded[0]->data), "NV");

  EXPECT_EQ(updater.truncateMiscFwResources(), 0);
  EXPECT_TRUE(loaded.empty());

  root.write(kFirmware, "");
  EXPECT_EQ(updater.loadAndSaveMiscFw(), 1u);
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[0]->path, kFirmware);
  EXPECT_EQ(loaded[0]->type, OFFLOAD_BTFW);
  EXPECT_EQ(loaded[0]->size, 0u);
  EXPECT_EQ(loaded[1]->index, 1u);
  EXPECT_EQ(loaded[1]->size, 2u);

  // A second load without releasing appends a second set.
  updater.loadAndSaveMiscFw();
  ASSERT_EQ(loaded.size(), 4u);
  EXPECT_EQ(loaded[2]->index, 0u);
}

TEST(MiscResourcesTest, FileOverTheSizeCapIsSkippedLikeAMissingOne) {
  TestRoot root;
  marlo_fw_updater updater;
  root.write(kFirmware, "");
  std::filesystem::resize_file(root.at(kFirmware), (uintmax_t{3} << 30));  // sparse: no bytes on disk
  root.write(kSettings, "NV");
  EXPECT_EQ(updater.loadAndSaveMiscFw(), 1u);
  ASSERT_EQ(updater.miscResources().size(), 1u);
  EXPECT_EQ(updater.miscResources()[0]->path, kSettings);
  EXPECT_EQ(updater.miscResources()[0]->index, 0u);
}

}  // namespace
}  // namespace marlo::test
