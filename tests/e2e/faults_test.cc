// A busy control device, a failed FLASH boot, and the reset property.
#include "e2e_fixture.h"

namespace marlo::e2e {
namespace {

TEST_F(E2e, BusyControlDeviceIsRetriedUntilItOpens) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.flash = sim::FlashContents::Shipped;
  start_device(options);
  device_->busy_control_opens(3);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return log_count("Marlo firmware versions are MATHCHED") == 1; }));
  EXPECT_EQ(log_count("marlocom_dev is busy, retrying in 1 seconds..."), 3);
  EXPECT_EQ(log_count("Failed to open marlocom_dev after multiple attempts"), 0);
  EXPECT_EQ(device_->driver().requests().front().name(), "GET_BOOT_MODE");
  EXPECT_EQ(device_->dfu().status().sessions_started, 0);
}

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

TEST_F(E2e, ResetPropertyResetsOnceAndIsCleared) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.flash = sim::FlashContents::Shipped;
  options.running_at_start = true;
  start_device(options);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return request_index("BOOT_STATUS", 1) >= 0; }));
  uint64_t boots = device_->coprocessor().boots();
  set_property("vendor.marlo_reset", "1");
  ASSERT_TRUE(wait_for([&] { return property("vendor.marlo_reset") == "0"; }));
  ASSERT_TRUE(wait_for([&] { return device_->coprocessor().running(); }));
  int reset = request_index("RESET", -1);
  ASSERT_GE(reset, 0);
  EXPECT_EQ(request_index("RESET", -1, static_cast<size_t>(reset) + 1), -1) << "exactly one reset";
  EXPECT_EQ(device_->driver().requests()[static_cast<size_t>(reset)].data, sim::kResetData);
  EXPECT_EQ(device_->coprocessor().boots(), boots + 1);
  // The power-up event follows the boot; its property write comes a moment later.
  EXPECT_TRUE(wait_for([&] { return property("vendor.marlo.boot_complete") == "1"; }))
      << "power-up event after the reset";
}

}  // namespace
}  // namespace marlo::e2e
