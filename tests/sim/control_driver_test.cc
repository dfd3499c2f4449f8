// The virtual kernel driver as the daemon's platform layer meets it.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "host_side.h"
#include "sim/device_root.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

using test::control;

constexpr uint32_t kBoot = 0xc0205609;

TEST(ControlDriver, FlashLoadNeedsBootableFlashAndHostLoadAlwaysWorks) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  DeviceOptions options;
  options.flash = FlashContents::Empty;
  VirtualDevice device(root.path(), options);

  EXPECT_EQ(control(kBoot, kCmdGetBootMode).result, kBootModeFlash);
  test::IoctlAnswer load = control(kBoot, kCmdLoad);
  EXPECT_EQ(load.result, -1);
  EXPECT_EQ(load.err, EIO);
  EXPECT_EQ(control(0xc0205608, 3).result, -1) << "no version record while offline";
  EXPECT_EQ(root.read(kRemoteprocState), "offline\n");

  EXPECT_EQ(control(kBoot, kCmdSetBootMode, kBootModeHost).result, 0);
  EXPECT_EQ(control(kBoot, kCmdLoad).result, 0);
  EXPECT_EQ(root.read(kRemoteprocState), "running\n");
  test::IoctlAnswer version = control(0xc0205608, 3);
  ASSERT_EQ(version.result, 0);
  ASSERT_EQ(version.reply.size(), 308u);
  EXPECT_STREQ(reinterpret_cast<const char*>(version.reply.data() + 8), shipped_versions().apps.c_str());
  EXPECT_EQ(get_u32(version.reply, 4), shipped_versions().kapi);

  // The flash gets the older set: a FLASH boot now works and reports it.
  device.flash().program(make_firmware_set(older_versions()));
  EXPECT_EQ(control(kBoot, kCmdUnload).result, 0);
  EXPECT_EQ(control(kBoot, kCmdSetBootMode, kBootModeFlash).result, 0);
  device.fail_flash_loads(1);
  EXPECT_EQ(control(kBoot, kCmdLoad).result, -1);
  EXPECT_EQ(control(kBoot, kCmdLoad).result, 0);
  version = control(0xc0205608, 3);
  EXPECT_STREQ(reinterpret_cast<const char*>(version.reply.data() + 8), older_versions().apps.c_str());

  std::vector<ControlRequest> log = device.driver().requests();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.front().name(), "GET_BOOT_MODE");
  EXPECT_EQ(log.back().name(), "GET_VERSION");
}

TEST(ControlDriver, ResetChecksItsWordsAndRestartsWithUevents) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  DeviceOptions options;
  options.running_at_start = true;
  VirtualDevice device(root.path(), options);
  EXPECT_EQ(control(kBoot, 99).err, EINVAL);
  EXPECT_EQ(control(kBoot, kCmdSetBootMode, 2).err, EINVAL);

  uint64_t boots = device.coprocessor().boots();
  EXPECT_EQ(control(0xc0205605, kResetCmd).result, 0);
  EXPECT_EQ(device.coprocessor().boots(), boots + 1);
  EXPECT_TRUE(device.coprocessor().running());
  ControlRequest reset = device.driver().requests().back();
  EXPECT_EQ(reset.data, kResetData);
  EXPECT_EQ(reset.count, 1u);
  EXPECT_EQ(control(0xc0205605, 7).err, EINVAL) << "reset with a wrong cmd word";
}

TEST(ControlDriver, BusyFaultFailsExactlyThatManyOpens) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  VirtualDevice device(root.path(), DeviceOptions{});
  device.busy_control_opens(2);
  EXPECT_EQ(control(kBoot, kCmdGetBootMode).err, EBUSY);
  EXPECT_EQ(control(kBoot, kCmdGetBootMode).err, EBUSY);
  EXPECT_EQ(control(kBoot, kCmdGetBootMode).result, kBootModeFlash);
}

}  // namespace
}  // namespace marlo::sim
