// The platform facts read from sysfs and patched into the debug-policy
// segment of the boot loader inside flash.bin, every other byte untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "common/le32.h"
#include "fw_test_files.h"
#include "fwupdater/marlo_fw_updater.h"
#include "sim/boot_loader_elf.h"

namespace marlo::test {
namespace {

constexpr size_t kElfOffset = 512;
constexpr size_t kPhoffAt = 28, kPhnumAt = 44, kPhentSize = 32;  // ELF32 header fields

class PlatformInfoTest : public ::testing::Test {
 protected:
  // flash.bin: filler, the boot loader at the table's offset, then a tail.
  std::vector<uint8_t> flash_with(const std::vector<uint8_t>& boot, int offset = kElfOffset, size_t tail = 64) {
    std::vector<uint8_t> flash(kElfOffset + boot.size() + tail, 0x3C);
    std::fill_n(flash.begin(), kElfOffset, 0xA5);
    std::copy(boot.begin(), boot.end(), flash.begin() + kElfOffset);
    root.write(kImageDir + "flash.bin", as_string(flash));
    write_table(root,
                "<mbr><Partition_1_SBL_Offset>" + std::to_string(offset) + "</Partition_1_SBL_Offset></mbr><Bank_1/>");
    return flash;
  }
  std::vector<uint8_t> served() {
    updater.truncateFwResources();
    updater.parsePartitionAndSaveFw(std::string(fw_image_dir) + partition_table_file);
    const auto& data = updater.firmwareResources().at(0)->data;
    return std::vector<uint8_t>(data.begin(), data.end());
  }

  TestRoot root;
  marlo_fw_updater updater;
  sim::BootLoaderElf elf = sim::build_boot_loader_elf(7);
};

TEST_F(PlatformInfoTest, SysfsTextsGiveTheFiveWordsOnTheDebugPolicySegment) {
  const char* const kAbsent = nullptr;
  struct Case {
    const char *hw, *subtype, *dload;
    std::vector<uint32_t> words;  // debug policy, platform, major, minor, subtype
    uint8_t elf_class = 1;        // neither 32 (1) nor 64 bits (2): read as 32 bits
  };
  const Case cases[] = {
      {kAbsent, kAbsent, kAbsent, {0, 0x22, 0xFFFFFFFF, 0xFFFFFFFF, 0}},
      {"WDP\n", "12\n", "mini\n", {1, 0x24, 0xFFFFFFFF, 0xFFFFFFFF, 12}},
      {"WDP", "12\n", "full\n", {0, 0x24, 0xFFFFFFFF, 0xFFFFFFFF, 12}},
      {"IDP\n", "123", "mini\n", {1, 0x22, 0xFFFFFFFF, 0xFFFFFFFF, 12}},
      {"QRD", "7", "full,mini\n", {1, 0x22, 0xFFFFFFFF, 0xFFFFFFFF, 7}},
      {"WD", "", "", {0, 0x22, 0xFFFFFFFF, 0xFFFFFFFF, 0}, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hw != kAbsent ? c.hw : "no files");
    const std::pair<const char*, const char*> files[] = {{"/sys/devices/soc0/hw_platform", c.hw},
                                                         {"/sys/devices/soc0/platform_subtype_id", c.subtype},
                                                         {"/sys/kernel/dload/dload_mode", c.dload}};
    for (const auto& [path, text] : files) {
      std::filesystem::remove(root.at(path));
      if (text != kAbsent) root.write(path, text);
    }
    std::vector<uint8_t> boot = elf.bytes;
    boot[4] = c.elf_class;
    std::vector<uint8_t> expected = flash_with(boot);
    for (size_t w = 0; w < c.words.size(); ++w) {
      put_le32(&expected[kElfOffset + elf.debug_policy_offset + 4 * w], c.words[w]);
    }
    EXPECT_EQ(served(), expected);  // every byte compared
  }
}

TEST_F(PlatformInfoTest, HostileOrTruncatedImagesAreServedUnchanged) {
  const uint32_t phoff = get_le32(&elf.bytes[kPhoffAt]);
  std::vector<std::vector<uint8_t>> hostile(4, elf.bytes);
  hostile[3][4] = 2;                             // a 32-bit image whose class says 64 bits: its fields read elsewhere
  put_le32(&hostile[0][kPhoffAt], 0xFFFFFFF0u);  // table far past the end
  hostile[1][kPhnumAt] = 0xFF;                   // more headers than bytes
  hostile[1][kPhnumAt + 1] = 0xFF;
  put_le32(&hostile[2][phoff + kPhentSize + 4], 0xFFFFFFF8u);  // block past the end
  for (const auto& boot : hostile) {
    const std::vector<uint8_t> flash = flash_with(boot);
    EXPECT_EQ(served(), flash);
  }
  // flash.bin itself ends inside the ELF header, then inside the table.
  for (size_t cut : {kPhnumAt + 1, phoff + kPhentSize + 10}) {
    const std::vector<uint8_t> flash = flash_with({elf.bytes.begin(), elf.bytes.begin() + cut}, kElfOffset, 0);
    EXPECT_EQ(served(), flash) << "cut at " << cut;
  }
  for (int offset : {-4, 0x7FFFFFFF, static_cast<int>(kElfOffset + elf.bytes.size() + 62)}) {
    const std::vector<uint8_t> flash = flash_with(elf.bytes, offset);
    EXPECT_EQ(served(), flash) << "offset " << offset;
  }
}

}  // namespace
}  // namespace marlo::test
