// The built daemon as a separate process against a device root, as an
// outside harness drives it.
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "sim/daemon_process.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"
#include "support/wait_until.h"

using namespace std::chrono_literals;

namespace {

marlo::sim::DaemonSettings settings_for(const marlo::test::TestRoot& root) {
  const char* build_dir = std::getenv("MARLO_BUILD_DIR");
  return {std::string(build_dir != nullptr ? build_dir : "build") + "/marlod", root.path(), root.at("/marlod.log"),
          root.at("/marlod.stderr"), 0.01};
}

TEST(MarlodProcessTest, ExitsWithoutACoProcessor) {
  marlo::test::TestRoot root;
  marlo::sim::DaemonProcess marlod(settings_for(root));
  std::string error;
  ASSERT_TRUE(marlod.start(&error)) << error;
  int status = 0;
  ASSERT_TRUE(marlo::test::wait_until([&] { return !marlod.alive(&status); }, 10s));
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 237);
  EXPECT_TRUE(marlo::sim::log_contains(root.at("/marlod.log"), "ZT AON not present: Do not perform PIL"));
}

TEST(MarlodProcessTest, StartedWithStandardInputClosedKeepsDescriptorZeroOnDevNull) {
  marlo::test::TestRoot root;
  marlo::sim::VirtualDevice::build_sample_root(root.path());
  marlo::sim::DeviceOptions options;
  options.variant = marlo::sim::Variant::NoflashPsram;  // boots in HOST mode
  options.running_at_start = true;
  marlo::sim::VirtualDevice device(root.path(), options);
  marlo::sim::DaemonSettings settings = settings_for(root);
  settings.stdin_closed = true;
  marlo::sim::DaemonProcess marlod(settings);
  std::string error;
  ASSERT_TRUE(marlod.start(&error)) << error;
  ASSERT_TRUE(marlo::test::wait_until(
      [&] { return marlo::sim::log_contains(root.at("/marlod.log"), "Marlo boot complete in HOST Mode!"); }, 10s));
  // Nothing the daemon opened (its log, a channel, a sysfs file) took it.
  char target[64] = {};
  const std::string fd0 = "/proc/" + std::to_string(marlod.pid()) + "/fd/0";
  ASSERT_GT(::readlink(fd0.c_str(), target, sizeof(target) - 1), 0);
  EXPECT_STREQ(target, "/dev/null");
}

}  // namespace
