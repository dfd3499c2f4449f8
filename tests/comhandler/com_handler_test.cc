// The control-device commands against the virtual co-processor's driver.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
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
  ControlRequest last_request() {
    auto requests = driver().requests();
    EXPECT_FALSE(requests.empty());
    return requests.empty() ? ControlRequest{} : requests.back();
  }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::sim::VirtualDevice> device_;
  MarloComHandler handler_;
};

TEST_F(ComHandlerTest, EachCommandSendsItsRequestAndBlock) {
  struct Case {
    std::function<void()> call;
    const char* name;  // the request as the driver tells it
    uint32_t value;
    uint32_t count;
    uint32_t data;
    int result = 0;  // the driver's answer
  };
  const Case cases[] = {
      {[&] { handler_.marlocomSpiBusy(); }, "SPI_BUSY", 0, 0, 0},
      {[&] { handler_.marlocomSpiFree(); }, "SPI_FREE", 0, 0, 0},
      {[&] { handler_.marloLoad(); }, "LOAD", 0, 0, 0},
      {[&] { handler_.marloUnload(); }, "UNLOAD", 0, 0, 0},
      {[&] { handler_.marloSoftReset(); }, "SOFT_RESET", 0, 0, 0},
      {[&] { handler_.marloTWMexit(); }, "TWM_EXIT", 0, 0, 0},
      {[&] { handler_.set_marlo_boot_mode(FLASH); }, "SET_BOOT_MODE", 1, 0, 0},
      {[&] { handler_.cmd_save_aon_dump(); }, "SAVE_DUMP", 0, 0, 0},
      {[&] { handler_.set_marlo_boot_status(3); }, "BOOT_STATUS", 3, 0, 0},
      {[&] { handler_.marloReset(); }, "RESET", 0, 1, 0x08000000},
      {[&] { handler_.get_marlo_boot_mode(); }, "GET_BOOT_MODE", 0, 0, 0, FLASH},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.call();
    const ControlRequest request = last_request();
    EXPECT_EQ(request.name(), c.name);
    if (c.data == 0) {
      EXPECT_EQ(request.value, c.value);  // the reset's value word points at its data word instead
    }
    EXPECT_EQ(request.count, c.count);
    EXPECT_EQ(request.data, c.data);
    EXPECT_EQ(request.result, c.result) << "the driver refused it: " << request.err;
  }
  EXPECT_EQ(driver().requests().size(), std::size(cases));
  EXPECT_EQ(device_->coprocessor().boots(), 2u) << "loaded, then restarted by the reset";
}

TEST_F(ComHandlerTest, BusyDeviceIsRetriedFifteenTimes) {
  device_->busy_control_opens(15);
  EXPECT_EQ(handler_.marloLoad(), -1);
  EXPECT_EQ(driver().node().opens_seen(), 15);
  EXPECT_EQ(log_.count("marlocom_dev is busy, retrying in 1 seconds...\n"), 15);
  EXPECT_TRUE(log_.contains("Failed to open marlocom_dev after multiple attempts\n"));
  EXPECT_TRUE(log_.contains("Cannot open marlo_com_dev node fd =-1\n"));
  EXPECT_TRUE(driver().requests().empty());

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
  EXPECT_EQ(last_request().name(), "GET_VERSION");

  // Every query failing gives no record.
  driver().set_refusal([](const ControlRequest&) { return EIO; });
  EXPECT_EQ(handler_.get_current_aon_fw_version(), nullptr);
  EXPECT_TRUE(log_.contains("Send SEND_IPC_CMD failed to get version"));
}

}  // namespace
