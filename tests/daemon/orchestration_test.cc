// Boot-mode decisions against the virtual co-processor's driver.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "daemon/DFUCallback.h"
#include "daemon/MarloDaemon.h"
#include "support/control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace {

using marlo::sim::ControlRequest;

class OrchestrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    device_ = marlo::test::serve_control_device(root_);
    daemon_.getMarloPILDevice();
  }

  // The co-processor reports boot mode `mode`; every load fails when
  // `loads` is false.
  void script(int mode, bool loads) {
    device_->coprocessor().set_boot_mode(mode);
    device_->driver().set_refusal([loads](const ControlRequest& r) {
      return !loads && r.request == marlo::sim::kReqBoot && r.cmd == marlo::sim::kCmdLoad ? EIO : 0;
    });
  }

  std::string trace() const { return marlo::test::request_trace(device_->driver()); }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::sim::VirtualDevice> device_;
  MarloDaemon daemon_;
};

TEST_F(OrchestrationTest, ChangeBootmodeGivesUpSilentlyAfterThreeLoads) {
  script(FLASH, false);
  daemon_.changeBootmode(HOST);
  EXPECT_EQ(trace(), "SET_BOOT_MODE=0 UNLOAD SPI_BUSY SOFT_RESET LOAD! SOFT_RESET LOAD! SOFT_RESET LOAD! SPI_FREE");
}

TEST_F(OrchestrationTest, ChangeBootmodeToHostKeepsTheBusBusyAndToFlashFreesIt) {
  script(FLASH, true);
  daemon_.changeBootmode(HOST);
  EXPECT_EQ(trace(), "SET_BOOT_MODE=0 UNLOAD SPI_BUSY SOFT_RESET LOAD");
  EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), "<unset>");

  daemon_.changeBootmode(FLASH);
  EXPECT_EQ(trace(),
            "SET_BOOT_MODE=0 UNLOAD SPI_BUSY SOFT_RESET LOAD SET_BOOT_MODE=1 UNLOAD SPI_BUSY SOFT_RESET LOAD SPI_FREE "
            "BOOT_STATUS=1");
  EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), "1");
}

TEST_F(OrchestrationTest, FallBackFromFlashToHostThatDoesNotLoad) {
  script(FLASH, false);
  EXPECT_EQ(daemon_.defaultHandler(), -1);
  EXPECT_EQ(trace(), "GET_BOOT_MODE SET_BOOT_MODE=0 RESET LOAD!");
  EXPECT_TRUE(log_.contains("Marlo boot fail even on fallback to host from flash"));
  EXPECT_EQ(g_daemon_state.load(), 0);

  script(HOST, false);
  EXPECT_EQ(daemon_.defaultHandler(), -1);
  EXPECT_TRUE(log_.contains("Marlo boot failed in Host Mode."));
}

TEST_F(OrchestrationTest, CallbackReactsToChannelErrorsAndMiscDataProgress) {
  DFUCallback with_device(MarloComHandler::getInstance(), &daemon_);
  with_device.handleDFUResponse("Marlo dfu channel open failed", marlo_fw_updater::Callback::STATUS_CHANNEL_ERROR);
  EXPECT_TRUE(log_.contains("handleDFUResponse: Marlo dfu channel open failed"));
  with_device.handleSHMResponse("started", marlo_fw_updater::Callback::STATUS_STARTED);
  EXPECT_EQ(root_.property("vendor.zt_aon.misc_update"), "0");
  with_device.handleSHMResponse("finished", marlo_fw_updater::Callback::STATUS_SUCCESS);
  EXPECT_EQ(root_.property("vendor.zt_aon.misc_update"), "1");
  EXPECT_EQ(trace(), "BOOT_STATUS=1 BOOT_STATUS=2 BOOT_STATUS=3");
}

// A power-down withdraws pushed misc data: the worker writes it once the job
// in progress (here: push skipped, RMA client started) is over.
TEST_F(OrchestrationTest, PowerDownWithdrawsPushedMiscDataAfterTheJob) {
  root_.set_property("vendor.zt_aon.misc_update", "1");
  daemon_.handleNoFlashPsram();
  ASSERT_TRUE(
      marlo::test::wait_until([&] { return log_.contains("starting rma connection"); }, std::chrono::seconds(10)));
  EXPECT_EQ(root_.property("vendor.zt_aon.misc_update"), "1") << "skipped, not withdrawn";
  daemon_.on_aon_down();
  EXPECT_TRUE(marlo::test::wait_until([&] { return root_.property("vendor.zt_aon.misc_update") == "0"; },
                                      std::chrono::seconds(10)));
}

}  // namespace
