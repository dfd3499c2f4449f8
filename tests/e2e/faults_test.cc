// Faults from outside the daemon, each checked for what must not be lost: a
// failed FLASH boot, a broken image set, a data directory that cannot take a
// partition. Co-processor behaviour of every kind is the generated
// co-processor's (tests/property).
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

constexpr const char* kImageDir = "/vendor/firmware_mnt/image/";

TEST_F(E2e, FailedFlashBootFallsBackToHostAndUpdates) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.flash = sim::FlashContents::Shipped;
  start_device(options);
  device_->fail_flash_loads(1);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  EXPECT_EQ(log_count("Fallback: Marlo boot complete in Host Mode, try DFU"), 1);
  int reset = request_index("RESET", -1);
  ASSERT_GE(reset, 0);
  EXPECT_EQ(device_->driver().requests()[static_cast<size_t>(reset)].data, sim::kResetData);
  EXPECT_LT(request_index("SET_BOOT_MODE", sim::kBootModeHost), reset);
  expect_flash_holds_shipped_firmware();
}

using FaultScenarios = E2e;

// A partition the data directory cannot hold: creating its backing file
// fails part-way (a file-size limit, RLIMIT_FSIZE with SIGXFSZ ignored,
// makes the zero fill fail with EFBIG, the same path as ENOSPC). The
// failing-write path is taken, not the failing-open one: the daemon must
// remove the partial file, so that no later CONNECT keeps it, and answer
// every write with result 1.
TEST_F(FaultScenarios, FullDataDirectoryAnswersWritesWithFailureAndRecovers) {
  start_device(noflash_options());
  const char* build = std::getenv("MARLO_BUILD_DIR");
  const std::string wrapper = root_ + "/sim/marlod-limited.sh";
  // A host program: the emulator (MARLO_EMULATOR, empty on a native build)
  // goes before marlod. 4096 bytes: below the first partition's 8192.
  std::ofstream(wrapper) << "#!/bin/sh\ntrap '' XFSZ\nexec prlimit --fsize=4096 -- $MARLO_EMULATOR "
                         << (build ? build : ".") << "/marlod\n";
  ::chmod(wrapper.c_str(), 0755);
  log_file_ = root_ + "/sim/marlod-limited.log";
  sim::DaemonSettings settings{wrapper, root_, log_file_, root_ + "/sim/marlod-limited.stderr", 0.01};
  settings.launcher.clear();
  daemon_ = std::make_unique<sim::DaemonProcess>(settings);
  std::string error;
  ASSERT_TRUE(daemon_->start(&error)) << error;
  ASSERT_TRUE(wait_for([&] { return !device_->rma().status().problems.empty(); }));
  sim::RmaStatus rma = device_->rma().status();
  EXPECT_EQ(rma.problems.front(), "host could not write block at 0");
  EXPECT_EQ(rma.blocks_written, 0) << "no block may be reported as written";
  const std::string backing = root_ + sim::RmaClient::backing_file(sim::RmaConfig{}.partitions[0]);
  EXPECT_FALSE(std::filesystem::exists(backing)) << "a partial backing file was left behind";

  // Room again: the next power-up is served completely.
  stop_daemon();
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().open_connections() >= 1; }));
  device_->restart();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  EXPECT_EQ(device_->rma().verify_backing_files(), "");
}

// An image set the daemon cannot use starts no download and keeps the
// working firmware in flash.
TEST_F(FaultScenarios, BrokenImageSetStartsNoDownloadAndKeepsTheWorkingFirmware) {
  const struct {
    const char* file;
    const char* contents;
    const char* also_logged;
  } kCases[] = {
      {"flash.bin", "", "AON Flash bin file is empty or not present"},
      {"partition_table.xml", "<data><Bank_1><Partition_table><Partition><Off", "XML Config File Not Opened"},
  };
  for (const auto& broken : kCases) {
    SCOPED_TRACE(broken.file);
    renew_root();
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::write_text(root_ + kImageDir + broken.file, broken.contents);
    start_device({});
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return log_count("AON Flash bin file is empty or not present") >= 1; }));
    EXPECT_GE(log_count(broken.also_logged), 1);
    EXPECT_TRUE(wait_for([&] {
      return sim::read_text(root_ + "/data/vendor/marlod/updates.jsonl")
                 .find(R"("outcome":"failed: flash image empty or missing")") != std::string::npos;
    }));
    std::optional<sim::FirmwareManifest> bootable = device_->flash().bootable_manifest();
    ASSERT_TRUE(bootable.has_value()) << "the working firmware in flash was lost";
    EXPECT_EQ(bootable->apps, sim::older_versions().apps);
    EXPECT_EQ(device_->dfu().status().sessions_started, 0);
    EXPECT_TRUE(daemon_->alive());
  }
}

}  // namespace
}  // namespace marlo::e2e
