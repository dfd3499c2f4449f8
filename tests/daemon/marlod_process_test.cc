// The built daemon as a separate process against a device root and a fake
// control device, as an outside harness drives it.
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

#include "sim/daemon_process.h"
#include "support/fake_control_device.h"
#include "support/test_root.h"
#include "support/wait_until.h"

using namespace std::chrono_literals;
using marlo::test::ControlAnswer;
using marlo::test::ControlRequest;
using marlo::test::FakeControlDevice;

namespace {

marlo::sim::DaemonSettings settings_for(const marlo::test::TestRoot& root) {
  const char* build_dir = std::getenv("MARLO_BUILD_DIR");
  return {std::string(build_dir != nullptr ? build_dir : "build") + "/marlod", root.path(), root.at("/marlod.log"),
          root.at("/marlod.stderr"), 0.01};
}

bool log_has_line(const std::string& log_file, const std::string& line) {
  std::ifstream in(log_file);
  for (std::string entry; std::getline(in, entry);) {
    if (entry.find(line) != std::string::npos) return true;
  }
  return false;
}

TEST(MarlodProcessTest, ExitsWithoutACoProcessor) {
  marlo::test::TestRoot root;
  marlo::sim::DaemonProcess marlod(settings_for(root));
  std::string error;
  ASSERT_TRUE(marlod.start(&error)) << error;
  const pid_t pid = marlod.pid();  // the main thread's id in the log
  int status = 0;
  ASSERT_TRUE(marlo::test::wait_until([&] { return !marlod.alive(&status); }, 10s));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 237);
  EXPECT_TRUE(log_has_line(root.at("/marlod.log"), "{\"prio\": 4, \"tag\": null, \"tid\": " + std::to_string(pid) +
                                                       ", \"msg\": \"ZT AON not present: Do not perform PIL\"}"));
}

// A running co-processor that boots in HOST mode, behind `device`.
void host_boot_device(const marlo::test::TestRoot& root, FakeControlDevice* device) {
  root.set_property("ro.vendor.zt_aon_presence", "1");
  root.write("/sys/devices/platform/marlo/remoteproc0/name", "soc:zeno,rproc-marlo\n");
  root.write("/sys/devices/platform/marlo/remoteproc0/state", "running\n");
  root.symlink("../../devices/platform/marlo/remoteproc0", "/sys/class/remoteproc/remoteproc0");
  root.write("/sys/devices/soc0/platform_subtype_id", "0");
  device->set_responder([](const ControlRequest& request) {
    ControlAnswer answer;
    if (request.request == 0xc0205608) answer.reply = FakeControlDevice::version_record(0, "APPS", "DSP", "BT");
    return answer;  // boot mode query answers 0: HOST
  });
}

TEST(MarlodProcessTest, BootsInHostModeAndServesTheResetProperty) {
  marlo::test::TestRoot root;
  FakeControlDevice device(root.at("/dev/marlo_com_dev"));
  host_boot_device(root, &device);

  marlo::sim::DaemonProcess marlod(settings_for(root));
  std::string error;
  ASSERT_TRUE(marlod.start(&error)) << error;
  ASSERT_TRUE(marlo::test::wait_until([&] { return root.property("vendor.marlo.boot_complete") == "1"; }, 10s));
  ASSERT_TRUE(marlo::test::wait_until(
      [&] { return log_has_line(root.at("/marlod.log"), "Marlo boot complete in HOST Mode!"); }, 10s));
  auto requests = device.requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests[0].request, 0xc0205609u);
  EXPECT_EQ(requests[0].cmd(), 6u);  // the boot-mode query comes first

  root.set_property("vendor.marlo_reset", "1");
  ASSERT_TRUE(marlo::test::wait_until([&] { return root.property("vendor.marlo_reset") == "0"; }, 10s));
  int resets = 0;
  for (const auto& request : device.requests()) {
    if (request.request != 0xc0205605) continue;
    ++resets;
    EXPECT_EQ(request.cmd(), 20u);
    EXPECT_EQ(request.block[6], 1u);
    EXPECT_EQ(request.data, 0x08000000u);
  }
  EXPECT_EQ(resets, 1);
}

TEST(MarlodProcessTest, StartedWithStandardInputClosedKeepsDescriptorZeroOnDevNull) {
  marlo::test::TestRoot root;
  FakeControlDevice device(root.at("/dev/marlo_com_dev"));
  host_boot_device(root, &device);
  marlo::sim::DaemonSettings settings = settings_for(root);
  settings.stdin_closed = true;
  marlo::sim::DaemonProcess marlod(settings);
  std::string error;
  ASSERT_TRUE(marlod.start(&error)) << error;
  ASSERT_TRUE(marlo::test::wait_until(
      [&] { return log_has_line(root.at("/marlod.log"), "Marlo boot complete in HOST Mode!"); }, 10s));
  // Nothing the daemon opened (its log, a channel, a sysfs file) took it.
  char target[64] = {};
  const std::string fd0 = "/proc/" + std::to_string(marlod.pid()) + "/fd/0";
  ASSERT_GT(::readlink(fd0.c_str(), target, sizeof(target) - 1), 0);
  EXPECT_STREQ(target, "/dev/null");
}

}  // namespace
