#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fw_test_files.h"
#include "fwupdater/marlo_fw_updater.h"
#include "support/log_capture.h"

namespace marlo::test {
namespace {

// Twenty bytes that mark the debug-policy segment inside the built ELF.
const std::string kMarker = "DEBUG-POLICY-BLOCK!!";
constexpr size_t kElfOffset = 512;

// Links a boot loader whose second program header is the debug-policy
// segment at 0x20147FA4. Empty when the tools fail.
std::vector<uint8_t> build_elf(const std::string& dir, bool is64) {
  std::ofstream(dir + "/boot.s") << ".globl _start\n.text\n_start: .byte 0x90, 0x90, 0x90, 0x90\n"
                                 << ".section .dbgpol, \"aw\"\n.ascii \"" << kMarker << "\"\n";
  std::ofstream(dir + "/boot.ld") << "PHDRS { text PT_LOAD; dbg PT_LOAD; }\n"
                                  << "SECTIONS { . = 0x10000; .text : { *(.text) } :text\n"
                                  << ". = 0x20147FA4; .dbgpol : { *(.dbgpol) } :dbg }\n";
  const std::string cmd = "cd '" + dir + "' && as " + (is64 ? "--64" : "--32") + " -o boot.o boot.s && ld " +
                          (is64 ? "-m elf_x86_64" : "-m elf_i386") +
                          " -z max-page-size=0x1000 --build-id=none -T boot.ld -o boot.elf boot.o";
  if (std::system(cmd.c_str()) != 0) return {};
  std::ifstream in(dir + "/boot.elf", std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class PlatformInfoTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (std::system("command -v as >/dev/null && command -v ld >/dev/null") != 0)
      GTEST_SKIP() << "binutils (as, ld) are not installed";
    const std::string dir = root.at("/elf-build");
    std::filesystem::create_directories(dir);
    elf = build_elf(dir, GetParam());
    ASSERT_FALSE(elf.empty()) << "as/ld failed to build the boot loader";
    auto at = std::search(elf.begin(), elf.end(), kMarker.begin(), kMarker.end());
    ASSERT_NE(at, elf.end());
    block = kElfOffset + static_cast<size_t>(at - elf.begin());
  }

  // flash.bin: filler, the ELF at the table's offset, then a tail.
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
  template <typename T>
  void poke(std::vector<uint8_t>& bytes, size_t at, T value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
  }

  TestRoot root;
  marlo_fw_updater updater;
  std::vector<uint8_t> elf;
  size_t block = 0;
};

TEST_P(PlatformInfoTest, FiveWordsLandOnTheDebugPolicySegmentAndNothingElseChanges) {
  root.write("/sys/devices/soc0/hw_platform", "WDP\n");
  root.write("/sys/devices/soc0/platform_subtype_id", "12\n");
  root.write("/sys/kernel/dload/dload_mode", "mini\n");
  std::vector<uint8_t> expected = flash_with(elf);
  const uint32_t words[5] = {1, 0x24, 0xFFFFFFFF, 0xFFFFFFFF, 12};
  std::memcpy(expected.data() + block, words, sizeof words);
  EXPECT_EQ(served(), expected);  // every byte compared
  if (GetParam()) return;
  // A class byte of neither 32 nor 64 bits is logged and read as 32 bits.
  std::vector<uint8_t> odd_class = elf;
  odd_class[4] = 3;
  expected = flash_with(odd_class);
  std::memcpy(expected.data() + block, words, sizeof words);
  LogCapture log;
  EXPECT_EQ(served(), expected);
  EXPECT_TRUE(log.contains("Invalid ELF"));
}

TEST_P(PlatformInfoTest, HostileOrTruncatedImagesAreServedUnchanged) {
  const bool is64 = GetParam();
  const size_t phoff_at = is64 ? 32 : 28, phnum_at = is64 ? 56 : 44, phent = is64 ? 56 : 32;
  uint32_t phoff = 0;
  std::memcpy(&phoff, elf.data() + phoff_at, sizeof phoff);

  std::vector<std::vector<uint8_t>> hostile(3, elf);
  poke<uint32_t>(hostile[0], phoff_at, 0xFFFFFFF0u);                        // table far past the end
  poke<uint16_t>(hostile[1], phnum_at, 0xFFFF);                             // more headers than bytes
  poke<uint32_t>(hostile[2], phoff + phent + (is64 ? 8 : 4), 0xFFFFFFF8u);  // block past the end
  for (const auto& boot : hostile) {
    const std::vector<uint8_t> flash = flash_with(boot);
    EXPECT_EQ(served(), flash);
  }
  // flash.bin itself ends inside the ELF header, then inside the table.
  for (size_t cut : {phnum_at + 1, phoff + phent + 10}) {
    const std::vector<uint8_t> flash = flash_with({elf.begin(), elf.begin() + cut}, kElfOffset, 0);
    EXPECT_EQ(served(), flash) << "cut at " << cut;
  }
  for (int offset : {-4, 0x7FFFFFFF, static_cast<int>(kElfOffset + elf.size() + 62)}) {
    const std::vector<uint8_t> flash = flash_with(elf, offset);
    EXPECT_EQ(served(), flash) << "offset " << offset;
  }
}

INSTANTIATE_TEST_SUITE_P(ElfClasses, PlatformInfoTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Elf64" : "Elf32"; });

TEST(PlatformInfoSysfsTest, TextsGiveTheDocumentedValues) {
  TestRoot root;
  marlo_fw_updater updater;
  platform_info info = updater.getPlatformInfo();  // no files: defaults
  EXPECT_EQ(info.platform_id, 0x22u);
  EXPECT_EQ(info.debug_policy, 0u);
  EXPECT_EQ(info.sub_type, 0u);

  struct Case {
    const char* hw;
    const char* subtype;
    const char* dload;
    uint32_t platform_id, sub_type, debug_policy;
  };
  for (const Case& c : {Case{"WDP", "12\n", "full\n", 0x24, 12, 0}, Case{"IDP\n", "123", "mini\n", 0x22, 12, 1},
                        Case{"QRD", "7", "full,mini\n", 0x22, 7, 1}, Case{"WD", "", "", 0x22, 0, 0}}) {
    root.write("/sys/devices/soc0/hw_platform", c.hw);
    root.write("/sys/devices/soc0/platform_subtype_id", c.subtype);
    root.write("/sys/kernel/dload/dload_mode", c.dload);
    info = updater.getPlatformInfo();
    EXPECT_EQ(info.platform_id, c.platform_id) << c.hw;
    EXPECT_EQ(info.sub_type, c.sub_type) << c.subtype;
    EXPECT_EQ(info.debug_policy, c.debug_policy) << c.dload;
    EXPECT_EQ(info.major_id, 0xFFFFFFFFu);
    EXPECT_EQ(info.minor_id, 0xFFFFFFFFu);
  }
}

}  // namespace
}  // namespace marlo::test
