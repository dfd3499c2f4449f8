// The main job: a co-processor running older firmware from its flash is
// updated by the daemon, and the next boot finds the versions matched.
#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

TEST_F(E2e, VersionMismatchUpdatesFlashAndNextBootMatches) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  start_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); })) << "update did not finish";
  expect_flash_holds_shipped_firmware();
  EXPECT_EQ(property("persist.vendor.zt_aon.dfu_update"), "1");
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "1");
  EXPECT_EQ(log_count("crm_build_number MIS-MATHCHED"), 1);
  // Two erasable partitions erased, then the download; HOST before it,
  // FLASH after it.
  sim::DfuStatus dfu = device_->dfu().status();
  ASSERT_EQ(dfu.erases.size(), 2u);
  EXPECT_EQ(dfu.erases[0], std::make_pair(0x200000u, 65536u));
  EXPECT_EQ(dfu.crc_errors + dfu.protocol_errors, 0);
  int to_host = request_index("SET_BOOT_MODE", sim::kBootModeHost);
  ASSERT_GE(to_host, 0);
  EXPECT_LT(to_host, request_index("SET_BOOT_MODE", sim::kBootModeFlash));
  EXPECT_FALSE(device_->driver().spi_busy());
  EXPECT_TRUE(wait_for([&] { return wakelock_released(); })) << "a wakelock reference was kept";

  // Reboot: the daemon boots the new firmware from flash and leaves it.
  stop_daemon();
  device_->power_cycle();
  size_t before = device_->driver().requests().size();
  start_daemon();
  ASSERT_TRUE(wait_for([&] {
    return log_count("Marlo firmware versions are MATHCHED") == 1 && request_index("BOOT_STATUS", 1, before) >= 0;
  }));
  EXPECT_TRUE(device_->coprocessor().running());
  // The main thread serves the reset property only after the boot handling:
  // a switch to HOST for a download would have come before the reset.
  set_property("vendor.marlo_reset", "1");
  ASSERT_TRUE(wait_for([&] { return request_index("RESET", -1, before) >= 0; }));
  EXPECT_EQ(request_index("SET_BOOT_MODE", sim::kBootModeHost, before), -1);
  EXPECT_EQ(device_->dfu().status().sessions_started, 1) << "no second download";
}

TEST_F(E2e, DroppedChannelResumesFromReportedStateAndFlashIsExact) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.dfu.fragment_size = 2048;
  start_device(options);
  device_->drop_dfu_after(7);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  sim::DfuStatus dfu = device_->dfu().status();
  EXPECT_EQ(dfu.drops, 1);
  EXPECT_EQ(dfu.state_queries, 2) << "one after the erases, one to resume";
  EXPECT_EQ(dfu.sessions_started, 1) << "resumed, not restarted";
  EXPECT_EQ(dfu.resends, 0);
  EXPECT_GE(log_count("getCurrentDFUStateAndContinueDownload"), 1) << "resumed through the state query";
  expect_flash_holds_shipped_firmware();
}

}  // namespace
}  // namespace marlo::e2e
