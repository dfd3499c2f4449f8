#include <gtest/gtest.h>

#include <cstring>

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

TEST_F(VersionCheckTest, ReadsTheBlockAndTheLastLineOfEachKeyWins) {
  root.write(kPrimary,
             "{\n  \"crm\": \"ignored\",\n  \"apps_cochip\": \"TBX.1.0-00123\",\n"
             "  \"btfw_cochip\": \"BT.OLD\",\n  \"dsp_cochip\": \"DSP.3&\"\n"
             "  \"btfw_cochip\": \"BT.NEW\",\n  \"dsp_cochip\": \"a&b\",\n}\n");
  root.write(kFallback, "\"apps_cochip\": \"FALLBACK\"\n");
  marlo_meta_info meta = updater.readMarloMetaBuildInfo();
  EXPECT_EQ(meta.apps_cochip, "TBX.1.0-00123");
  EXPECT_EQ(meta.btfw_cochip, "BT.NEW");
  EXPECT_EQ(meta.dsp_cochip, "DSP.3");  // closing ampersand dropped; "a&b" does not match
  EXPECT_TRUE(log.contains(std::string("aon build from ") + kPrimary + ".\n"));

  // Several pairs on a line: the last pair's value, for every key named.
  root.write(kPrimary, "\"dsp_cochip\": \"D1\", \"note\": \"see apps_cochip\", \"x\": \"LAST\"\n");
  meta = updater.readMarloMetaBuildInfo();
  EXPECT_EQ(meta.dsp_cochip, "LAST");
  EXPECT_EQ(meta.apps_cochip, "LAST");
  EXPECT_EQ(meta.btfw_cochip, "");
}

TEST_F(VersionCheckTest, FallbackIsReadOnlyWhenThePrimaryCannotBeOpened) {
  root.write(kFallback, "\"apps_cochip\": \"FALLBACK\"\n");
  EXPECT_EQ(updater.readMarloMetaBuildInfo().apps_cochip, "FALLBACK");

  root.write(kPrimary, "no keys here\n");
  EXPECT_EQ(updater.readMarloMetaBuildInfo().apps_cochip, "");
  wear_firmware_info_t running = record("OTHER", "", "");
  EXPECT_EQ(updater.fw_version_check(&running), 0);
}

TEST_F(VersionCheckTest, LinesOfAnyLengthGiveTheirValue) {
  // A build number far longer than any record text: read whole, it cannot
  // be found in the running version, so the update goes ahead.
  const std::string build(100 * 1024, 'B');
  const std::string quotes(100 * 1024, '"');
  root.write(kPrimary, "\"apps_cochip\": \"" + build + "\",\n\"dsp_cochip\": \"" + quotes + "&\"\n");
  const marlo_meta_info meta = updater.readMarloMetaBuildInfo();
  EXPECT_EQ(meta.apps_cochip, build);
  EXPECT_EQ(meta.dsp_cochip, quotes);
  wear_firmware_info_t running = record("TBX.1.0", "", "");
  EXPECT_EQ(updater.fw_version_check(&running), -1);
  EXPECT_TRUE(log.contains("crm_build_number MIS-MATHCHED"));
}

TEST_F(VersionCheckTest, PrimaryFileAboveOneMebibyteCountsAsNotOpened) {
  // `size` bytes: the key line, then filler lines without keys.
  auto file_of = [](size_t size) {
    std::string text = "\"apps_cochip\": \"PRIMARY\"\n";
    while (text.size() < size) text += std::string(1023, 'x') + "\n";
    text.resize(size);
    return text;
  };
  root.write(kPrimary, file_of(1 << 20));
  EXPECT_EQ(updater.readMarloMetaBuildInfo().apps_cochip, "PRIMARY");

  root.write(kPrimary, file_of((1 << 20) + 1));
  EXPECT_EQ(updater.readMarloMetaBuildInfo().apps_cochip, "") << "nothing to fall back to";
  EXPECT_TRUE(log.contains(std::string("version file ") + kPrimary + " of 1048577 bytes is above the limit"));
  root.write(kFallback, "\"apps_cochip\": \"FALLBACK\"\n");
  EXPECT_EQ(updater.readMarloMetaBuildInfo().apps_cochip, "FALLBACK");
  EXPECT_TRUE(log.contains(std::string("aon build from ") + kFallback + ".\n"));
}

TEST_F(VersionCheckTest, ComparesBuildAlwaysButBluetoothAndDspOnlyWhenReported) {
  root.write(kPrimary, "\"apps_cochip\": \"TBX.1.0\"\n\"btfw_cochip\": \"BT.2\"\n\"dsp_cochip\": \"DSP.3\"\n");
  struct Case {
    wear_firmware_info_t info;
    int32_t result;
    const char* message;
  };
  const Case cases[] = {
      {record("TBX.1.0-NOFLASH_PSRAM", "", ""), 0, "versions are MATHCHED, skip fw_update"},
      {record("x TBX.1.0", "dsp DSP.3", "bt BT.2"), 0, "versions are MATHCHED, skip fw_update"},
      {record("", "", ""), -1, "crm_build_number MIS-MATHCHED"},
      {record("TBX.1.1", "", ""), -1, "crm_build_number MIS-MATHCHED"},
      {record("TBX.1.0", "", "BT.9"), -1, "btfw_cochip MIS-MATHCHED"},
      {record("TBX.1.0", "dsp.3", "BT.2"), -1, "dsp_cochip MIS-MATHCHED"},
  };
  for (Case c : cases) {
    EXPECT_EQ(updater.fw_version_check(&c.info), c.result) << c.info.apps_version;
    EXPECT_NE(log.entries().back().msg.find(c.message), std::string::npos) << c.message;
  }
  EXPECT_EQ(updater.fw_version_check(nullptr), -1);
  EXPECT_TRUE(log.contains("fw_info: version is invalid"));

  // Texts that fill their whole field without a terminator stay inside it.
  wear_firmware_info_t full;
  std::memset(&full, 'A', sizeof full);
  EXPECT_EQ(updater.fw_version_check(&full), -1);
  EXPECT_EQ(updater.is_psram_noflash(&full), -1);
}

TEST_F(VersionCheckTest, NoflashVariantIsToldByTheAppsVersionOnly) {
  wear_firmware_info_t psram = record("TBX.1.0-NOFLASH_PSRAM", "", "");
  wear_firmware_info_t elsewhere = record("TBX.1.0", "NOFLASH_PSRAM", "NOFLASH_PSRAM");
  EXPECT_EQ(updater.is_psram_noflash(&psram), 0);
  EXPECT_EQ(updater.is_psram_noflash(&elsewhere), -1);
  EXPECT_EQ(updater.is_psram_noflash(nullptr), -1);
}

}  // namespace
}  // namespace marlo::test
