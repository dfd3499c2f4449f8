// The built daemon as a separate process against a device root and a fake
// control device, as an outside harness drives it.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "support/fake_control_device.h"
#include "support/marlod_process.h"
#include "support/test_root.h"

using namespace std::chrono_literals;
using marlo::test::ControlAnswer;
using marlo::test::ControlRequest;
using marlo::test::FakeControlDevice;

namespace {

TEST(MarlodProcessTest, ExitsWithoutACoProcessor) {
  marlo::test::TestRoot root;
  marlo::test::MarlodProcess marlod(root.path(), root.at("/marlod.log"));
  EXPECT_EQ(marlod.wait_exit(10s), 237);
  bool found = false;
  for (const auto& entry : marlod.log()) {
    if (entry.msg == "ZT AON not present: Do not perform PIL") {
      found = true;
      EXPECT_EQ(entry.prio, 4);
      EXPECT_FALSE(entry.has_tag);
    }
  }
  EXPECT_TRUE(found);
}

TEST(MarlodProcessTest, BootsInHostModeAndServesTheResetProperty) {
  marlo::test::TestRoot root;
  root.set_property("ro.vendor.zt_aon_presence", "1");
  root.write("/sys/devices/platform/marlo/remoteproc0/name", "soc:zeno,rproc-marlo\n");
  root.write("/sys/devices/platform/marlo/remoteproc0/state", "running\n");
  root.symlink("../../devices/platform/marlo/remoteproc0", "/sys/class/remoteproc/remoteproc0");
  root.write("/sys/devices/soc0/platform_subtype_id", "0");
  FakeControlDevice device(root.at("/dev/marlo_com_dev"));
  device.set_responder([](const ControlRequest& request) {
    ControlAnswer answer;
    if (request.request == 0xc0205608) answer.reply = FakeControlDevice::version_record(0, "APPS", "DSP", "BT");
    return answer;  // boot mode query answers 0: HOST
  });

  marlo::test::MarlodProcess marlod(root.path(), root.at("/marlod.log"));
  ASSERT_TRUE(marlo::test::wait_until([&] { return root.property("vendor.marlo.boot_complete") == "1"; }, 10s));
  ASSERT_TRUE(marlod.wait_for_log("Marlo boot complete in HOST Mode!", 10s));
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

}  // namespace
