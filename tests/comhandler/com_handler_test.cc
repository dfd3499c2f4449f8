// The control-device commands against the virtual co-processor's driver.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "comhandler/MarloComHandler.h"
#include "support/control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using marlo::sim::ControlRequest;

class ComHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { device_ = marlo::test::serve_control_device(root_); }

  marlo::sim::ControlDriver& driver() { return device_->driver(); }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::sim::VirtualDevice> device_;
  MarloComHandler handler_;
};

TEST_F(ComHandlerTest, BusyDeviceIsRetriedFifteenTimes) {
  device_->busy_control_opens(15);
  EXPECT_EQ(handler_.marloLoad(), -1);
  EXPECT_EQ(driver().node().opens_seen(), 15);
  EXPECT_EQ(log_.count("marlocom_dev is busy, retrying in 1 seconds...\n"), 15);
  EXPECT_TRUE(log_.contains("Failed to open marlocom_dev after multiple attempts\n"));
  EXPECT_TRUE(log_.contains("Cannot open marlo_com_dev node fd =-1\n"));

  // A device busy for fewer opens is reached on the next attempt.
  device_->busy_control_opens(2);
  EXPECT_EQ(handler_.marloLoad(), 0);
  EXPECT_EQ(driver().requests().size(), 1u);
}

TEST_F(ComHandlerTest, VersionQueryWaitsForBootCompleteAndRetries) {
  // Never booted: fourteen waits, then an unfilled record, not null.
  std::unique_ptr<wear_firmware_info_t> unfilled = handler_.get_current_aon_fw_version();
  ASSERT_NE(unfilled, nullptr);
  EXPECT_EQ(log_.count("get_current_aon_fw_version: Marlo boot not completed, retry:"), 14);
  EXPECT_TRUE(driver().requests().empty());
  EXPECT_STREQ(unfilled->apps_version, "");

  // Booted: failing queries are retried until one fills the record.
  root_.set_property("vendor.marlo.boot_complete", "1");
  ASSERT_EQ(device_->coprocessor().load(), 0);
  int calls = 0;
  driver().set_refusal([&calls](const ControlRequest&) { return ++calls < 3 ? EAGAIN : 0; });
  std::unique_ptr<wear_firmware_info_t> info = handler_.get_current_aon_fw_version();
  ASSERT_NE(info, nullptr);
  const auto running = device_->coprocessor().running_firmware();
  ASSERT_TRUE(running.has_value());
  EXPECT_EQ(info->apps_version, running->apps + ".NOFLASH_PSRAM");  // as the flash-less co-processor reports it
  EXPECT_EQ(info->bt_version, running->bt);
  EXPECT_EQ(log_.count("Marlo boot done, but get version fail-retry:"), 2);
  ASSERT_FALSE(driver().requests().empty());
  EXPECT_EQ(driver().requests().back().name(), "GET_VERSION");

  // Every query failing gives no record.
  driver().set_refusal([](const ControlRequest&) { return EIO; });
  EXPECT_EQ(handler_.get_current_aon_fw_version(), nullptr);
  EXPECT_TRUE(log_.contains("Send SEND_IPC_CMD failed to get version"));
}

}  // namespace
