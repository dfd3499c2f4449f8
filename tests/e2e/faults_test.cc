// A busy control device and a failed FLASH boot.
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

}  // namespace
}  // namespace marlo::e2e
