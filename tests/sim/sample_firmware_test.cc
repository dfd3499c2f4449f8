// The sample firmware must be what the daemon's readers expect: a partition
// table in the documented format, a version file whose values the daemon's
// expression extracts, and a flash.bin with the boot loader ELF in place.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <regex>
#include <sstream>

#include "common/crc32.h"
#include "sim/boot_loader_elf.h"
#include "sim/firmware_manifest.h"
#include "sim/sample_firmware.h"

namespace marlo::sim {
namespace {

TEST(SampleFirmware, FlashImageCarriesBootLoaderAndManifest) {
  FirmwareSet set = make_firmware_set(shipped_versions());
  const Bytes& flash = set.images.at(kFlashImageId);
  long segment = find_debug_policy_segment(flash, set.sbl_offset);
  ASSERT_GT(segment, 0);
  EXPECT_EQ(static_cast<uint32_t>(segment), set.debug_policy_offset);
  // Header 0 is the code segment, never the debug-policy one.
  uint32_t phoff = get_u32(flash, set.sbl_offset + 28);
  EXPECT_NE(get_u32(flash, set.sbl_offset + phoff + 8), kDebugPolicyAddress);
  EXPECT_EQ(find_debug_policy_segment(flash, 0), -1);

  std::optional<FirmwareManifest> m = find_manifest(flash);
  ASSERT_TRUE(m.has_value());
  EXPECT_EQ(m->apps, set.versions.apps);
  const Bytes& p1 = set.images.at(kPartition1ImageId);
  EXPECT_EQ(m->p1_size, p1.size());
  EXPECT_EQ(m->p1_crc, crc32(p1.data(), p1.size()));
  EXPECT_NE(make_firmware_set(older_versions()).images.at(kPartition1ImageId), p1);
}

TEST(SampleFirmware, PartitionTableAndVersionFileReadAsTheDaemonReadsThem) {
  FirmwareSet set = make_firmware_set(shipped_versions());
  tinyxml2::XMLDocument doc;
  ASSERT_EQ(doc.Parse(set.partition_table_xml().c_str()), tinyxml2::XML_SUCCESS);
  auto* root = doc.FirstChildElement();
  EXPECT_EQ(
      static_cast<uint32_t>(root->FirstChildElement("mbr")->FirstChildElement("Partition_1_SBL_Offset")->IntText()),
      set.sbl_offset);
  int erasable = 0, count = 0;
  for (auto* p =
           root->FirstChildElement("Bank_1")->FirstChildElement("Partition_table")->FirstChildElement("Partition");
       p != nullptr; p = p->NextSiblingElement("Partition")) {
    ++count;
    erasable += p->FirstChildElement("HostSpecificInfo")->FirstChildElement("PartType")->IntText() != 0;
  }
  EXPECT_EQ(count, 4);
  EXPECT_EQ(erasable, 2);

  std::regex expression("\"([^=]*)\": \"([^&]*)&?\"");
  std::map<std::string, std::string> found;
  std::istringstream lines(set.version_file());
  std::string line;
  while (std::getline(lines, line)) {
    std::smatch match;
    for (const char* key : {"apps_cochip", "btfw_cochip", "dsp_cochip"}) {
      if (line.find(key) != std::string::npos && std::regex_search(line, match, expression)) found[key] = match[2];
    }
  }
  EXPECT_EQ(found["apps_cochip"], set.versions.apps);
  EXPECT_EQ(found["btfw_cochip"], set.versions.bt);
  EXPECT_EQ(found["dsp_cochip"], set.versions.dsp);
}

}  // namespace
}  // namespace marlo::sim
