// Faults from outside the daemon, each checked for what must not be lost: a
// download cut at several points ends with the shipped firmware in flash
// byte for byte; a data directory that cannot take a partition never
// reports a block as written; a control device that stays busy, a broken
// image and a corrupt partition table leave the daemon running and the
// working firmware in flash. Kills and restarts at every packet are the
// crash sweeps' (crash_sweep_test.cc).
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

constexpr const char* kImageDir = "/vendor/firmware_mnt/image/";

// Fragments of the whole download at the configured fragment size.
int total_fragments(const sim::FirmwareSet& set, uint32_t fragment_size) {
  int total = 0;
  for (uint32_t id : set.image_ids()) {
    total += static_cast<int>((set.images.at(id).size() + fragment_size - 1) / fragment_size);
  }
  return total;
}

class FaultScenarios : public E2e {
 protected:
  // Starts marlod under a file-size limit (RLIMIT_FSIZE, with SIGXFSZ
  // ignored so that an oversized write fails with EFBIG instead of killing
  // it): every file write past `bytes` fails, as on a full data partition.
  void start_daemon_with_file_limit(long bytes) {
    const char* build = std::getenv("MARLO_BUILD_DIR");
    const std::string marlod = std::string(build ? build : ".") + "/marlod";
    const std::string wrapper = root_ + "/sim/marlod-limited.sh";
    // The script is a host program: it puts the emulator (MARLO_EMULATOR,
    // empty on a native build) before marlod itself.
    std::ofstream(wrapper) << "#!/bin/sh\ntrap '' XFSZ\nexec prlimit --fsize=" << bytes << " -- $MARLO_EMULATOR "
                           << marlod << "\n";
    ::chmod(wrapper.c_str(), 0755);
    ++starts_;
    log_file_ = root_ + "/sim/marlod-" + std::to_string(starts_) + ".log";
    sim::DaemonSettings settings{wrapper, root_, log_file_, root_ + "/sim/marlod-limited.stderr", 0.01};
    settings.launcher.clear();
    daemon_ = std::make_unique<sim::DaemonProcess>(settings);
    std::string error;
    ASSERT_TRUE(daemon_->start(&error)) << error;
  }

  void expect_older_firmware_still_boots() {
    std::optional<sim::FirmwareManifest> bootable = device_->flash().bootable_manifest();
    ASSERT_TRUE(bootable.has_value()) << "the working firmware in flash was lost";
    EXPECT_EQ(bootable->apps, sim::older_versions().apps);
    EXPECT_EQ(device_->dfu().status().sessions_started, 0);
    EXPECT_TRUE(daemon_->alive());
  }
};

TEST_F(FaultScenarios, DownloadCutAtFirstMiddleAndLastFragmentLeavesAnExactFlash) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.dfu.fragment_size = 2048;
  start_device(options);
  const int total = total_fragments(shipped_, 2048);
  device_->drop_dfu_at({1, total / 2, total - 1});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  sim::DfuStatus dfu = device_->dfu().status();
  EXPECT_EQ(dfu.drops, 3);
  EXPECT_EQ(dfu.sessions_started, 1) << "every cut resumed, none restarted";
  EXPECT_EQ(dfu.crc_errors + dfu.protocol_errors, 0);
  expect_flash_holds_shipped_firmware();
}

// A partition the data directory cannot hold: creating its backing file
// fails part-way (the file-size limit makes the zero fill fail with EFBIG,
// the same path as ENOSPC). The failing-write path is taken, not the
// failing-open one: the daemon must remove the partial file, so that no
// later CONNECT keeps it, and answer every write with result 1.
TEST_F(FaultScenarios, FullDataDirectoryAnswersWritesWithFailureAndRecovers) {
  start_device(noflash_options());
  start_daemon_with_file_limit(4096);  // below the first partition's 8192 bytes
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

TEST_F(FaultScenarios, ControlDeviceThatStaysBusyLeavesTheDaemonServingResets) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.flash = sim::FlashContents::Shipped;
  options.running_at_start = true;
  start_device(options);
  device_->busy_control_opens(1000000);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return log_count("Failed to open marlocom_dev after multiple attempts") >= 1; }));
  EXPECT_TRUE(device_->driver().requests().empty()) << "no request can have reached the driver";
  EXPECT_TRUE(daemon_->alive());

  // Once the device is free again, a reset request is served.
  device_->driver().node().fail_opens(0, 0);
  set_property("vendor.marlo_reset", "1");
  ASSERT_TRUE(wait_for([&] { return property("vendor.marlo_reset") == "0"; }));
  EXPECT_GE(request_index("RESET", -1), 0);
  EXPECT_TRUE(daemon_->alive());
}

TEST_F(FaultScenarios, TruncatedImageIsServedExactlyAsShipped) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  const std::string partition_1 = root_ + kImageDir + "partition_1.bin";
  std::filesystem::resize_file(partition_1, 1000);
  start_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->dfu().status().sessions_completed >= 1; }));
  std::optional<sim::Bytes> served = device_->flash().image(sim::kPartition1ImageId);
  ASSERT_TRUE(served.has_value());
  const std::string shipped = sim::read_text(partition_1);
  EXPECT_EQ(std::string(served->begin(), served->end()), shipped) << "not a byte more, not a byte less";
  EXPECT_TRUE(daemon_->alive());
}

TEST_F(FaultScenarios, EmptyFlashImageStartsNoDownloadAndKeepsTheWorkingFirmware) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  std::filesystem::resize_file(root_ + kImageDir + "flash.bin", 0);
  start_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return log_count("AON Flash bin file is empty or not present") >= 1; }));
  expect_older_firmware_still_boots();
}

TEST_F(FaultScenarios, CorruptPartitionTableStartsNoDownloadAndKeepsTheWorkingFirmware) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::write_text(root_ + kImageDir + "partition_table.xml", "<data><Bank_1><Partition_table><Partition><Off");
  start_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return log_count("AON Flash bin file is empty or not present") >= 1; }));
  EXPECT_GE(log_count("XML Config File Not Opened"), 1);
  expect_older_firmware_still_boots();
}

}  // namespace
}  // namespace marlo::e2e
