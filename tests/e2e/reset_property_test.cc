// The reset property is served while the flash-less boot push is still going
// on, also when the co-processor keeps restarting during it; a reset in the
// middle of the push ends that push as a restart does.
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "e2e_fixture.h"
#include "sim/device_root.h"
#include "sim/uevent_sender.h"
#include "support/wait_until.h"

namespace marlo::e2e {
namespace {

using namespace std::chrono_literals;

int count_lines(const std::string& file, const std::string& text) {
  std::ifstream in(file);
  std::string line;
  int count = 0;
  while (std::getline(in, line)) count += line.find(text) != std::string::npos;
  return count;
}

class ResetProperty : public E2e {
 protected:
  std::string next_log() const { return root_ + "/sim/marlod-" + std::to_string(starts_ + 1) + ".log"; }

  int resets() const {
    int count = 0;
    for (const sim::ControlRequest& r : device_->driver().requests()) count += r.name() == "RESET";
    return count;
  }

  // A complete push from one session, without a rejected packet, and one RMA
  // client serving the co-processor.
  void expect_one_complete_push_and_rma_served() {
    ASSERT_TRUE(wait_for([&] {
      return device_->misc().status().finishes >= 1 && device_->rma().status().runs_completed >= 1 &&
             device_->rma().open_connections() == 1;
    }));
    EXPECT_EQ(device_->misc().status().finishes, 1);
    EXPECT_EQ(device_->misc().status().rejected, 0);
    EXPECT_EQ(device_->misc().status().stored.size(), 2u);
  }
};

// Every push is cut by a restart whose power-up the daemon has seen before
// the push ends, so the boot-time job never finishes while the loop lasts.
TEST_F(ResetProperty, ServedWithinSecondsWhileTheCoprocessorRestartsDuringTheBootPush) {
  start_device(noflash_options());
  auto crash_loop = std::make_shared<std::atomic<bool>>(true);
  auto restarts = std::make_shared<std::atomic<int>>(0);
  const std::string root = root_;
  const std::string log = next_log();
  device_->misc().set_packet_hook([root, log, crash_loop, restarts](int) {
    if (!crash_loop->load()) return true;
    const int ups = count_lines(log, "on_aon_up: called");
    EXPECT_TRUE(test::wait_until([&] { return sim::send_uevent(root, sim::marlo_uevent(sim::kEventPowerDown)); }, 15s));
    EXPECT_TRUE(sim::send_uevent(root, sim::marlo_uevent(sim::kEventPowerUp)));
    EXPECT_TRUE(test::wait_until([&] { return count_lines(log, "on_aon_up: called") > ups; }, 15s));
    std::this_thread::sleep_for(20ms);  // the worker takes the power-up in
    ++*restarts;
    return false;  // the co-processor went down with the packet
  });
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return restarts->load() >= 3; }));

  set_property("vendor.marlo_reset", "1");
  EXPECT_TRUE(wait_for([&] { return property("vendor.marlo_reset") == "0"; }, 5000))
      << "the reset property is not served while the boot push restarts";
  EXPECT_EQ(resets(), 1);
  std::this_thread::sleep_for(300ms);  // 30 passes of the loop at the test's time scale
  EXPECT_EQ(resets(), 1) << "one reset for one request";
  EXPECT_EQ(property("vendor.marlo_reset"), "0");

  crash_loop->store(false);
  expect_one_complete_push_and_rma_served();
}

// The reset is served while the boot push waits for an answer: the push is
// abandoned before the reset goes out, as on a power-down, and the power-up
// that follows the reset brings one complete push and one RMA client.
TEST_F(ResetProperty, ResetDuringTheBootPushEndsItAsARestartDoes) {
  start_device(noflash_options());
  const std::string root = root_;
  const std::string log = next_log();
  device_->misc().set_packet_hook([root, log](int packets) {
    if (packets != 2) return true;
    sim::set_property(root, "vendor.marlo_reset", "1");
    EXPECT_TRUE(test::wait_until([&] { return sim::get_property(root, "vendor.marlo_reset", "") == "0"; }, 15s));
    EXPECT_TRUE(test::wait_until([&] { return sim::log_contains(log, "on_aon_up: called"); }, 15s));
    return true;
  });
  start_daemon();
  expect_one_complete_push_and_rma_served();
  EXPECT_EQ(resets(), 1);
  EXPECT_EQ(log_count("push abandoned, no rma connection for it"), 1);
  EXPECT_EQ(log_count("starting rma connection"), 1);
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "1");
}

}  // namespace
}  // namespace marlo::e2e
