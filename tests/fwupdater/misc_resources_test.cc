#include <gtest/gtest.h>

#include <filesystem>

#include "fw_test_files.h"
#include "fwupdater/marlo_fw_updater.h"

namespace marlo::test {
namespace {

const std::string kFirmware = "/vendor/bt_firmware/image/mrbtfw20.mbn";
const std::string kSettings = "/vendor/bt_firmware/image/mrnv20.bin";

// What one loaded resource reads as: "<index> <type> <path> <bytes>".
std::string loaded(const marlo_misc_resource& r) {
  EXPECT_EQ(r.size, r.data.size()) << r.path;
  return std::to_string(r.index) + " " + std::to_string(r.type) + " " + r.path + " " + as_string(r.data);
}

// The files load in path order; a missing file, or one over the size cap,
// takes no index.
TEST(MiscResourcesTest, PresentFilesLoadInPathOrder) {
  const std::string none = "<none>", oversized = "<3 GiB>";
  struct Case {
    std::string firmware, settings;
    std::vector<std::string> loaded;
  };
  const Case cases[] = {
      {none, "NV", {"0 1 " + kSettings + " NV"}},
      {"", "NV", {"0 0 " + kFirmware + " ", "1 1 " + kSettings + " NV"}},
      {oversized, "NV", {"0 1 " + kSettings + " NV"}},
      {"FW", none, {"0 0 " + kFirmware + " FW"}},
  };
  TestRoot root;
  marlo_fw_updater updater;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.firmware + " / " + c.settings);
    std::filesystem::remove(root.at(kFirmware));
    std::filesystem::remove(root.at(kSettings));
    if (c.firmware != none) root.write(kFirmware, c.firmware == oversized ? "" : c.firmware);
    if (c.firmware == oversized) std::filesystem::resize_file(root.at(kFirmware), uintmax_t{3} << 30);  // sparse
    if (c.settings != none) root.write(kSettings, c.settings);
    EXPECT_EQ(updater.loadAndSaveMiscFw(), 1u);
    std::vector<std::string> got;
    for (const auto& resource : updater.miscResources()) got.push_back(loaded(*resource));
    EXPECT_EQ(got, c.loaded);
    EXPECT_EQ(updater.truncateMiscFwResources(), 0);
    EXPECT_TRUE(updater.miscResources().empty());
  }
}

}  // namespace
}  // namespace marlo::test
