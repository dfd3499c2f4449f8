#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "fwupdater/marlo_fw_updater.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {
namespace {

const char kPrimary[] = "/vendor/firmware_mnt/image/tbx7700_ver_info.txt";
const char kFallback[] = "/vendor/firmware_mnt/verinfo/ver_info.txt";

wear_firmware_info_t record(const char* apps, const char* dsp, const char* bt) {
  wear_firmware_info_t info{};
  std::strncpy(info.apps_version, apps, sizeof info.apps_version - 1);
  std::strncpy(info.dsp_version, dsp, sizeof info.dsp_version - 1);
  std::strncpy(info.bt_version, bt, sizeof info.bt_version - 1);
  return info;
}

class VersionCheckTest : public ::testing::Test {
 protected:
  TestRoot root;
  LogCapture log;
  marlo_fw_updater updater;
};

TEST_F(VersionCheckTest, ReadsTheLastValueOfEachKeyFromThePrimaryOrElseTheFallback) {
  const std::string build(100 * 1024, 'B');
  const std::string quotes(100 * 1024, '"');
  const std::string none = "<none>";
  std::string oversized = "\"apps_cochip\": \"PRIMARY\"\n";  // a key line, then filler to one byte above 1 MiB
  oversized.resize((1 << 20) + 1, 'x');
  struct Case {
    std::string primary;  // file contents, or none
    std::string fallback;
    std::string apps, bt, dsp;
    std::string logged;  // a line the read logs
  };
  const Case cases[] = {
      // The last line of a key wins; a closing ampersand is dropped, "a&b" does not match.
      {"{\n  \"crm\": \"ignored\",\n  \"apps_cochip\": \"TBX.1.0-00123\",\n  \"btfw_cochip\": \"BT.OLD\",\n"
       "  \"dsp_cochip\": \"DSP.3&\"\n  \"btfw_cochip\": \"BT.NEW\",\n  \"dsp_cochip\": \"a&b\",\n}\n",
       "\"apps_cochip\": \"FALLBACK\"\n", "TBX.1.0-00123", "BT.NEW", "DSP.3",
       std::string("aon build from ") + kPrimary + ".\n"},
      // Several pairs on a line: the last pair's value, for every key named.
      {"\"dsp_cochip\": \"D1\", \"note\": \"see apps_cochip\", \"x\": \"LAST\"\n", none, "LAST", "", "LAST", ""},
      // The first group stops at an equals sign; an ampersand may end the line, and so may the file.
      {"\"apps_cochip\": \"A=B\" &\n\"btfw_cochip=\": \"x\", \"k\": \"BT&\"\n=\"dsp_cochip\": \"D\"\ndsp_cochip\": "
       "\"V\"=",
       none, "A=B", "BT", "D", ""},
      // The fallback is read only when the primary cannot be opened.
      {none, "\"apps_cochip\": \"FALLBACK\"\n", "FALLBACK", "", "", ""},
      {"no keys here\n", "\"apps_cochip\": \"FALLBACK\"\n", "", "", "", ""},
      // Lines of any length give their whole value.
      {"\"apps_cochip\": \"" + build + "\",\n\"dsp_cochip\": \"" + quotes + "&\"\n", none, build, "", quotes, ""},
      // A primary file above one mebibyte counts as not opened.
      {oversized, none, "", "", "", std::string("version file ") + kPrimary + " of 1048577 bytes is above the limit"},
      {oversized, "\"apps_cochip\": \"FALLBACK\"\n", "FALLBACK", "", "",
       std::string("aon build from ") + kFallback + ".\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.primary.substr(0, 60));
    std::filesystem::remove(root.at(kPrimary));
    std::filesystem::remove(root.at(kFallback));
    if (c.primary != none) root.write(kPrimary, c.primary);
    if (c.fallback != none) root.write(kFallback, c.fallback);
    const int logged_before = log.count(c.logged);
    const marlo_meta_info meta = updater.readMarloMetaBuildInfo();
    EXPECT_EQ(meta.apps_cochip, c.apps);
    EXPECT_EQ(meta.btfw_cochip, c.bt);
    EXPECT_EQ(meta.dsp_cochip, c.dsp);
    if (!c.logged.empty()) {
      EXPECT_EQ(log.count(c.logged), logged_before + 1) << c.logged;
    }
  }
}

// The build is compared always, Bluetooth and DSP only when reported; the
// flash-less variant is told by the apps version only.
TEST_F(VersionCheckTest, ComparesTheRunningVersionsWithTheShippedOnes) {
  root.write(kPrimary, "\"apps_cochip\": \"TBX.1.0\"\n\"btfw_cochip\": \"BT.2\"\n\"dsp_cochip\": \"DSP.3\"\n");
  struct Case {
    wear_firmware_info_t info;
    int32_t result;
    const char* message;
    int32_t noflash;
  };
  const Case cases[] = {
      {record("TBX.1.0-NOFLASH_PSRAM", "", ""), 0, "versions are MATHCHED, skip fw_update", 0},
      {record("x TBX.1.0", "dsp DSP.3", "bt BT.2"), 0, "versions are MATHCHED, skip fw_update", -1},
      {record("", "", ""), -1, "crm_build_number MIS-MATHCHED", -1},
      {record("TBX.1.1", "", ""), -1, "crm_build_number MIS-MATHCHED", -1},
      {record("TBX.1.0", "", "BT.9"), -1, "btfw_cochip MIS-MATHCHED", -1},
      {record("TBX.1.0", "NOFLASH_PSRAM dsp.3", "BT.2 NOFLASH_PSRAM"), -1, "dsp_cochip MIS-MATHCHED", -1},
  };
  for (Case c : cases) {
    SCOPED_TRACE(c.info.apps_version);
    EXPECT_EQ(updater.fw_version_check(&c.info), c.result);
    EXPECT_NE(log.entries().back().msg.find(c.message), std::string::npos) << c.message;
    EXPECT_EQ(updater.is_psram_noflash(&c.info), c.noflash);
  }
  EXPECT_EQ(updater.fw_version_check(nullptr), -1);
  EXPECT_TRUE(log.contains("fw_info: version is invalid"));
  EXPECT_EQ(updater.is_psram_noflash(nullptr), -1);
}

}  // namespace
}  // namespace marlo::test
