// A co-processor without flash: misc data pushed once and RMA served; a
// power-up in the middle of its misc-data push or of a download, and power
// events lost in a uevent socket overrun. The interleavings are forced by
// hooks of the virtual co-processor. Restarts, resets and power events at
// any moment are the generated co-processor's (tests/property).
#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>

#include "e2e_fixture.h"
#include "sim/device_root.h"
#include "sim/uevent_sender.h"
#include "support/wait_until.h"

namespace marlo::e2e {
namespace {

using namespace std::chrono_literals;

// Sends a power event once the daemon's restart listener has bound its
// socket: the listener binds it on its own thread, and an event sent before
// then is lost, as a kernel uevent would be.
bool send_when_listening(const std::string& root, int event) {
  return test::wait_until([&] { return sim::send_uevent(root, sim::marlo_uevent(event)); }, 15s);
}

class Noflash : public E2e {
 protected:
  // Once the whole misc-data set has been stored from a single push and the
  // RMA workload has completed a run: exactly one push finished, without a
  // rejected packet, and exactly one RMA client serves the co-processor.
  void expect_one_complete_push_and_one_rma_client(int finishes) {
    ASSERT_TRUE(wait_for([&] {
      return device_->rma().status().runs_completed >= 1 && device_->rma().open_connections() == 1 &&
             device_->misc().status().finishes >= finishes;
    }));
    sim::MiscStatus misc = device_->misc().status();
    EXPECT_EQ(misc.finishes, finishes);
    EXPECT_EQ(misc.rejected, 0);
    ASSERT_EQ(misc.stored.size(), 2u);
    std::string bt = sim::read_text(root_ + sim::kBtFirmwarePath);
    EXPECT_EQ(std::string(misc.stored.at(0).begin(), misc.stored.at(0).end()), bt);
    EXPECT_EQ(device_->rma().verify_backing_files(), "");
    EXPECT_TRUE(device_->rma().status().problems.empty());
  }

  // The boot push's second packet is held unanswered while `meanwhile` runs
  // and until the daemon has seen a power-up; then one complete push and one
  // RMA client. The hook runs on the channel's thread: copies only.
  void hold_the_boot_push(std::function<void(const std::string& root)> meanwhile) {
    start_device(noflash_options());
    const std::string root = root_;
    const std::string log = root_ + "/sim/marlod-1.log";
    device_->misc().set_packet_hook([root, log, meanwhile](int packets) {
      if (packets == 2) {
        meanwhile(root);
        EXPECT_TRUE(test::wait_until([&] { return sim::log_contains(log, "on_aon_up: called"); }, 15s));
      }
      return true;
    });
    start_daemon();
    expect_one_complete_push_and_one_rma_client(1);
    EXPECT_EQ(log_count("starting rma connection"), 1);
  }
};

TEST_F(Noflash, BootPushesMiscDataOnceAndServesRma) {
  start_device(noflash_options());
  start_daemon();
  expect_one_complete_push_and_one_rma_client(1);
  EXPECT_GE(request_index("BOOT_STATUS", 2), 0) << "misc-data update started";
  EXPECT_EQ(device_->dfu().status().sessions_started, 0);
  EXPECT_EQ(device_->coprocessor().boot_mode(), sim::kBootModeHost);
  EXPECT_TRUE(wait_for([&] { return wakelock_released(); })) << "a wakelock reference was kept";
}

TEST_F(Noflash, PowerUpDuringTheBootPushRestartsItAndStartsOneRmaClient) {
  hold_the_boot_push([](const std::string& root) { EXPECT_TRUE(send_when_listening(root, sim::kEventPowerUp)); });
  EXPECT_EQ(property("vendor.zt_aon.misc_update"), "0") << "a push whose finish returned bytes reports no success";
}

// The reset is served while the boot push waits for an answer (the boot does
// not wait for its push): the push is abandoned before the reset goes out,
// as on a power-down, and the power-up that follows the reset brings one
// complete push and one RMA client.
TEST_F(Noflash, ResetDuringTheBootPushEndsItAsARestartDoes) {
  hold_the_boot_push([](const std::string& root) {
    sim::set_property(root, "vendor.marlo_reset", "1");
    EXPECT_TRUE(test::wait_until([&] { return sim::get_property(root, "vendor.marlo_reset", "") == "0"; }, 15s));
  });
  const int reset = request_index("RESET", -1);
  ASSERT_GE(reset, 0);
  EXPECT_EQ(request_index("RESET", -1, static_cast<size_t>(reset) + 1), -1) << "one RESET for one request";
  EXPECT_EQ(log_count("push abandoned, no rma connection for it"), 1);
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "1");
}

TEST_F(Noflash, PowerUpDuringADownloadLeavesTheDfuChannelToTheDownload) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options = noflash_options();
  options.running_at_start = false;
  auto fragments = std::make_shared<std::atomic<int>>(0);
  options.dfu.on_fragment = [this, fragments](const sim::FragmentTiming&) {
    const int fragment = ++*fragments;
    if (fragment == 3) {
      EXPECT_TRUE(send_when_listening(root_, sim::kEventPowerUp));
    }
    // The download waits here for the push beside it, so that the switch to
    // FLASH mode at the download's end cannot cut a slow push short.
    if (fragment == 4) wait_for([this] { return device_->misc().status().finishes >= 1; });
  };
  start_device(options);
  // The shipped Bluetooth firmware is newer than the running one: download.
  const std::string version_file = root_ + "/vendor/firmware_mnt/image/tbx7700_ver_info.txt";
  std::string versions = sim::read_text(version_file);
  const size_t bt = versions.find("BTFW.MR.20.7.5");
  ASSERT_NE(bt, std::string::npos);
  sim::write_text(version_file, versions.replace(bt, 14, "BTFW.MR.20.7.6"));
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished() && device_->misc().status().finishes >= 1; }));
  ASSERT_EQ(log_count("on_aon_up: called"), 1);
  sim::DfuStatus dfu = device_->dfu().status();
  EXPECT_EQ(dfu.protocol_errors, 0) << "no misc-data packet on the DFU channel";
  EXPECT_EQ(dfu.crc_errors, 0);
  EXPECT_EQ(dfu.sessions_started, 1);
  EXPECT_EQ(device_->misc().status().rejected, 0);
}

TEST_F(Noflash, PowerEventsLostInAnOverrunAreActedOnFromTheState) {
  start_device(noflash_options());
  start_daemon();
  expect_one_complete_push_and_one_rma_client(1);

  // The power-down is lost: the daemon finds the co-processor offline.
  device_->coprocessor().unload("test: power-down");
  ASSERT_TRUE(sim::arm_uevent_overrun(root_));
  ASSERT_TRUE(sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerDown)));
  ASSERT_TRUE(wait_for([&] { return log_count("on_aon_down: called") == 1; }));
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "0");

  // So is the power-up: the daemon finds it running and pushes again.
  ASSERT_EQ(device_->coprocessor().load(), 0);
  ASSERT_TRUE(sim::arm_uevent_overrun(root_));
  ASSERT_TRUE(sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerUp)));
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 2; }));
  expect_one_complete_push_and_one_rma_client(2);
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "1");
  EXPECT_EQ(log_count("uevent socket overrun"), 2);
  EXPECT_FALSE(std::filesystem::exists(root_ + "/dev/uevent.overrun")) << "every fault consumed";
}

}  // namespace
}  // namespace marlo::e2e
