// A co-processor without flash: misc data pushed, RMA served, and both done
// again after a restart in the middle of RMA traffic.
#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

void expect_misc_data_stored(const sim::VirtualDevice& device, const std::string& root) {
  sim::MiscStatus misc = const_cast<sim::VirtualDevice&>(device).misc().status();
  EXPECT_EQ(misc.rejected, 0);
  ASSERT_EQ(misc.stored.size(), 2u);
  std::string bt = sim::read_text(root + sim::kBtFirmwarePath);
  std::string nv = sim::read_text(root + sim::kBtNvPath);
  EXPECT_EQ(std::string(misc.stored.at(0).begin(), misc.stored.at(0).end()), bt);
  EXPECT_EQ(std::string(misc.stored.at(1).begin(), misc.stored.at(1).end()), nv);
}

TEST_F(E2e, NoflashPsramGetsMiscDataAndRmaService) {
  start_device(noflash_options());
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  expect_misc_data_stored(*device_, root_);
  EXPECT_EQ(device_->rma().verify_backing_files(), "");
  EXPECT_TRUE(device_->rma().status().problems.empty());
  EXPECT_GE(request_index("BOOT_STATUS", 2), 0) << "misc-data update started";
  EXPECT_EQ(device_->dfu().status().sessions_started, 0);
  EXPECT_EQ(device_->coprocessor().boot_mode(), sim::kBootModeHost);
  EXPECT_TRUE(wait_for([&] { return wakelock_released(); })) << "a wakelock reference was kept";
}

TEST_F(E2e, MiscDataAlreadyPushedIsSkippedButRmaIsServed) {
  set_property("vendor.zt_aon.misc_update", "1");
  start_device(noflash_options());
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  EXPECT_EQ(device_->misc().status().finishes, 0);
  EXPECT_EQ(request_index("BOOT_STATUS", 2), -1) << "no misc-data update started";
  EXPECT_EQ(property("vendor.zt_aon.misc_update"), "1");
}

TEST_F(E2e, RestartDuringRmaTrafficIsServedAgainAfterPowerUp) {
  start_device(noflash_options());
  device_->restart_during_rma(6);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  sim::RmaStatus rma = device_->rma().status();
  EXPECT_GE(rma.runs_started, 2) << "the interrupted run and the one after power-up";
  EXPECT_EQ(device_->rma().verify_backing_files(), "");
  EXPECT_GE(device_->misc().status().finishes, 2) << "misc data pushed again after the power-up";
  expect_misc_data_stored(*device_, root_);
  EXPECT_EQ(property("vendor.marlo.boot_complete"), "1");
  EXPECT_EQ(device_->coprocessor().boots(), 2u);
}

}  // namespace
}  // namespace marlo::e2e
