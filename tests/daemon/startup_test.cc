#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <memory>
#include <string>

#include "daemon/MarloDaemon.h"
#include "support/fake_control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

using marlo::test::ControlAnswer;
using marlo::test::ControlRequest;

namespace {

class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    device_ = std::make_unique<marlo::test::FakeControlDevice>(root_.at("/dev/marlo_com_dev"));
  }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::test::FakeControlDevice> device_;
};

TEST_F(StartupTest, FindsThePilDeviceBehindASymbolicLink) {
  root_.write("/sys/class/remoteproc/remoteproc0/name", "soc:other,rproc\n");
  root_.write("/sys/class/remoteproc/notremoteproc/name", "soc:zeno,rproc-marlo\n");
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/name", "soc:zeno,rproc-marlo\n");
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/state", "running\n");
  root_.symlink("../../devices/platform/soc/marlo/remoteproc7", "/sys/class/remoteproc/remoteproc7");

  MarloDaemon daemon;
  EXPECT_EQ(daemon.getMarloPILStatus(), 2);  // nothing found yet
  ASSERT_EQ(daemon.getMarloPILDevice(), 0);
  EXPECT_STREQ(daemon.pilStatePath(), "/sys/class/remoteproc//remoteproc7/state");
  EXPECT_EQ(daemon.getMarloPILStatus(), 1);
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/state", "offline\n");
  EXPECT_EQ(daemon.getMarloPILStatus(), 0);
  root_.write("/sys/devices/platform/soc/marlo/remoteproc7/state", "crashed\n");
  EXPECT_EQ(daemon.getMarloPILStatus(), 2);
}

TEST_F(StartupTest, MissingRemoteprocClassFindsNothing) {
  MarloDaemon daemon;
  EXPECT_EQ(daemon.getMarloPILDevice(), 1);
  EXPECT_STREQ(daemon.pilStatePath(), "");
}

TEST_F(StartupTest, TwmExitRunsItsCommandsBetweenTheRamdumpWrites) {
  std::vector<std::string> ramdumps_at_request;
  device_->set_responder([&](const ControlRequest&) {
    ramdumps_at_request.push_back(root_.property("persist.vendor.ssr.enable_ramdumps"));
    return ControlAnswer{};
  });
  for (const char* state : {"0", "garbage", "1"}) {
    root_.write("/sys/class/pmic-lpm/pmic_twm_exit", state);
    MarloDaemon daemon;
    EXPECT_EQ(daemon.isTWMexit(), std::string(state) == "1") << state;
  }
  EXPECT_TRUE(device_->requests().empty());

  MarloDaemon daemon;
  // The subtype file is missing, so the boot itself is skipped.
  EXPECT_EQ(daemon.initMarlo(), -19);
  auto requests = device_->requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].cmd(), 1u);  // TWM exit
  EXPECT_EQ(requests[1].cmd(), 7u);  // save the dump
  EXPECT_EQ(ramdumps_at_request, (std::vector<std::string>{"1", "1"}));
  EXPECT_EQ(root_.property("persist.vendor.ssr.enable_ramdumps"), "0");
  EXPECT_EQ(g_daemon_state.load(), 2);
  // The restart listener was started; wait for its socket so that it binds
  // inside this root.
  EXPECT_TRUE(marlo::test::wait_until([&] { return root_.exists("/dev/uevent"); }, std::chrono::seconds(5)));
}

TEST_F(StartupTest, TwmExitStateIsReadOnDescriptorZero) {
  root_.write("/sys/class/pmic-lpm/pmic_twm_exit", "1");
  MarloDaemon daemon;
  // As in a process started with standard input closed: the open of the
  // state file is handed descriptor 0.
  const int saved_stdin = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(saved_stdin, 0);
  ::close(STDIN_FILENO);
  const bool exiting = daemon.isTWMexit();
  // Descriptor 0 may be taken again meanwhile by another thread of this
  // process (the log writer, an emulator's own files): only the state file
  // left open there is a fault.
  char target[PATH_MAX] = {};
  const ssize_t length = ::readlink("/proc/self/fd/0", target, sizeof(target) - 1);
  const bool state_file_left_open =
      length > 0 && std::string(target, static_cast<size_t>(length)).find("pmic_twm_exit") != std::string::npos;
  ::dup2(saved_stdin, STDIN_FILENO);
  ::close(saved_stdin);
  EXPECT_TRUE(exiting);
  EXPECT_FALSE(state_file_left_open);
}

TEST_F(StartupTest, UnsupportedSubtypeSkipsTheBoot) {
  root_.write("/sys/devices/soc0/platform_subtype_id", "1");
  MarloDaemon daemon;
  EXPECT_EQ(daemon.platformSubtypeCheck(), -19);
  EXPECT_EQ(daemon.startMarloPIL(), -19);
  EXPECT_TRUE(log_.contains("platform subtype: -19 is not supported, skip marlo PIL"));
  EXPECT_TRUE(device_->requests().empty());
}

TEST_F(StartupTest, ResetPropertyResetsOnceAndIsWrittenBack) {
  MarloDaemon daemon;
  root_.set_property("vendor.marlo_reset", "2");
  daemon.serviceResetProperty();
  EXPECT_TRUE(device_->requests().empty());
  root_.set_property("vendor.marlo_reset", "1");
  daemon.serviceResetProperty();
  daemon.serviceResetProperty();
  ASSERT_EQ(device_->requests().size(), 1u);
  EXPECT_EQ(device_->requests()[0].request, 0xc0205605u);
  EXPECT_EQ(root_.property("vendor.marlo_reset"), "0");
}

}  // namespace
