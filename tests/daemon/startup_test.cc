#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "daemon/MarloDaemon.h"
#include "support/control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace {

class StartupTest : public ::testing::Test {
 protected:
  std::string requests() const { return marlo::test::request_trace(device_->driver()); }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::sim::VirtualDevice> device_;
};

TEST_F(StartupTest, FindsThePilDeviceBehindASymbolicLink) {
  MarloDaemon daemon;
  EXPECT_EQ(daemon.getMarloPILDevice(), 1);  // no remoteproc class at all
  EXPECT_EQ(daemon.getMarloPILStatus(), 2);

  root_.write("/sys/class/remoteproc/notremoteproc/name", "soc:zeno,rproc-marlo\n");
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/name", "soc:zeno,rproc-marlo\n");
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/state", "running\n");
  root_.symlink("../../devices/platform/soc/marlo/remoteproc7", "/sys/class/remoteproc/remoteproc7");
  ASSERT_EQ(daemon.getMarloPILDevice(), 0);
  EXPECT_EQ(daemon.getMarloPILStatus(), 1);
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/state", "crashed\n");
  EXPECT_EQ(daemon.getMarloPILStatus(), 2);
}

TEST_F(StartupTest, TwmExitRunsItsCommandsBetweenTheRamdumpWrites) {
  device_ = marlo::test::serve_control_device(root_);  // a sample root, offline
  std::vector<std::string> ramdumps_at_request;
  device_->driver().set_refusal([&](const marlo::sim::ControlRequest&) {
    ramdumps_at_request.push_back(root_.property("persist.vendor.ssr.enable_ramdumps"));
    return 0;
  });
  for (const char* state : {"0", "garbage", "1"}) {
    root_.write("/sys/class/pmic-lpm/pmic_twm_exit", state);
    MarloDaemon daemon;
    EXPECT_EQ(daemon.isTWMexit(), std::string(state) == "1") << state;
  }

  MarloDaemon daemon;
  // An unsupported subtype: the boot itself is skipped.
  root_.write("/sys/devices/soc0/platform_subtype_id", "1");
  EXPECT_EQ(daemon.initMarlo(), -19);
  EXPECT_TRUE(log_.contains("platform subtype: -19 is not supported, skip marlo PIL"));
  EXPECT_EQ(requests(), "TWM_EXIT SAVE_DUMP");
  EXPECT_EQ(ramdumps_at_request, (std::vector<std::string>{"1", "1"}));
  EXPECT_EQ(root_.property("persist.vendor.ssr.enable_ramdumps"), "0");
  EXPECT_EQ(g_daemon_state.load(), 2);
  // The restart listener was started; wait for its socket so that it binds
  // inside this root.
  EXPECT_TRUE(marlo::test::wait_until([&] { return root_.exists("/dev/uevent"); }, std::chrono::seconds(5)));
}

}  // namespace
