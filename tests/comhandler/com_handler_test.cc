#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "comhandler/MarloComHandler.h"
#include "support/fake_control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"

using marlo::test::ControlAnswer;
using marlo::test::ControlRequest;
using marlo::test::FakeControlDevice;

namespace {

class ComHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    device_ = std::make_unique<FakeControlDevice>(root_.at("/dev/marlo_com_dev"));
  }

  ControlRequest last_request() {
    auto requests = device_->requests();
    EXPECT_FALSE(requests.empty());
    return requests.empty() ? ControlRequest{} : requests.back();
  }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<FakeControlDevice> device_;
  MarloComHandler handler_;
};

TEST_F(ComHandlerTest, EachCommandSendsItsRequestAndBlock) {
  struct Case {
    std::function<void()> call;
    uint32_t request;
    uint32_t cmd;
    uint32_t value;
  };
  const Case cases[] = {
      {[&] { handler_.marlocomSpiBusy(); }, 0x80205604, 0, 0},
      {[&] { handler_.marlocomSpiFree(); }, 0x80205603, 0, 0},
      {[&] { handler_.marloSoftReset(); }, 0xc0205609, 0, 0},
      {[&] { handler_.marloTWMexit(); }, 0xc0205609, 1, 0},
      {[&] { handler_.marloLoad(); }, 0xc0205609, 3, 0},
      {[&] { handler_.marloUnload(); }, 0xc0205609, 4, 0},
      {[&] { handler_.set_marlo_boot_mode(FLASH); }, 0xc0205609, 5, 1},
      {[&] { handler_.get_marlo_boot_mode(); }, 0xc0205609, 6, 0},
      {[&] { handler_.cmd_save_aon_dump(); }, 0xc0205609, 7, 0},
      {[&] { handler_.set_marlo_boot_status(3); }, 0xc0205609, 8, 3},
  };
  for (const Case& c : cases) {
    c.call();
    ControlRequest request = last_request();
    EXPECT_EQ(request.request, c.request);
    EXPECT_EQ(request.cmd(), c.cmd);
    EXPECT_EQ(request.value(), c.value);
    EXPECT_EQ(request.block[6], 0u);
    EXPECT_FALSE(request.has_data);
  }
  EXPECT_EQ(device_->requests().size(), std::size(cases));
}

TEST_F(ComHandlerTest, ResetCarriesItsDataWord) {
  handler_.marloReset();
  ControlRequest request = last_request();
  EXPECT_EQ(request.request, 0xc0205605u);
  EXPECT_EQ(request.cmd(), 20u);
  EXPECT_EQ(request.block[6], 1u);
  ASSERT_TRUE(request.has_data);
  EXPECT_EQ(request.data, 0x08000000u);
}

TEST_F(ComHandlerTest, FailuresAreReportedByResultAndLog) {
  device_->set_responder([](const ControlRequest& request) {
    ControlAnswer answer;
    answer.result = request.cmd() == 6 ? 2 : -1;  // boot mode 2 is passed through
    answer.err = EIO;
    return answer;
  });
  EXPECT_EQ(handler_.get_marlo_boot_mode(), 2);
  EXPECT_EQ(handler_.marloLoad(), -1);
  EXPECT_TRUE(log_.contains("Send MARLO_LOAD flag failed"));
  EXPECT_EQ(handler_.set_marlo_boot_status(1), -1);
  EXPECT_TRUE(log_.contains("Send BOOT_STATUS ioctl failed"));
  handler_.marloReset();
  marlo::test::LogEntry entry;
  ASSERT_TRUE(log_.find("***** Marlo reset failed *****", &entry));
  EXPECT_EQ(entry.prio, 3);
}

TEST_F(ComHandlerTest, BusyDeviceIsRetriedFifteenTimes) {
  device_->node().fail_opens(15, EBUSY);
  EXPECT_EQ(handler_.marloLoad(), -1);
  EXPECT_EQ(device_->node().opens_seen(), 15);
  EXPECT_EQ(log_.count("marlocom_dev is busy, retrying in 1 seconds...\n"), 15);
  EXPECT_TRUE(log_.contains("Failed to open marlocom_dev after multiple attempts\n"));
  EXPECT_TRUE(log_.contains("Cannot open marlo_com_dev node fd =-1\n"));
  EXPECT_TRUE(device_->requests().empty());

  // A device busy for fewer opens is reached on the next attempt.
  device_->node().fail_opens(2, EBUSY);
  EXPECT_EQ(handler_.marloLoad(), 0);
  EXPECT_EQ(device_->requests().size(), 1u);
}

TEST_F(ComHandlerTest, MissingDeviceFailsAtOnce) {
  device_.reset();
  handler_.cmd_save_aon_dump();
  EXPECT_EQ(log_.count("Failed to open the marlocom_dev"), 1);
  EXPECT_EQ(log_.count("busy"), 0);
  EXPECT_TRUE(log_.contains("Cannot open kz_com_dev node fd =-1\n"));
}

TEST_F(ComHandlerTest, VersionQueryWaitsForBootCompleteAndRetries) {
  // Never booted: fourteen waits, then an unfilled record, not null.
  std::unique_ptr<wear_firmware_info_t> unfilled(handler_.get_current_aon_fw_version());
  ASSERT_NE(unfilled, nullptr);
  EXPECT_EQ(log_.count("get_current_aon_fw_version: Marlo boot not completed, retry:"), 14);
  EXPECT_TRUE(device_->requests().empty());
  EXPECT_STREQ(unfilled->apps_version, "");

  // Booted: failing queries are retried until one fills the record.
  root_.set_property("vendor.marlo.boot_complete", "1");
  int calls = 0;
  device_->set_responder([&calls](const ControlRequest&) {
    ControlAnswer answer;
    if (++calls < 3) {
      answer.result = -1;
      answer.err = EAGAIN;
    } else {
      answer.reply = FakeControlDevice::version_record(0x01020003, "APPS.1", "DSP.1", "BT.1");
    }
    return answer;
  });
  std::unique_ptr<wear_firmware_info_t> info(handler_.get_current_aon_fw_version());
  ASSERT_NE(info, nullptr);
  EXPECT_STREQ(info->apps_version, "APPS.1");
  EXPECT_STREQ(info->bt_version, "BT.1");
  EXPECT_EQ(log_.count("Marlo boot done, but get version fail-retry:"), 2);
  EXPECT_TRUE(log_.contains("KAPI Ver: 1.2.3\n"));
  ControlRequest request = last_request();
  EXPECT_EQ(request.request, 0xc0205608u);
  EXPECT_EQ(request.cmd(), 3u);
  EXPECT_NE(request.block[7], 0u);  // the reply buffer's user word

  // Every query failing gives no record.
  device_->set_responder([](const ControlRequest&) { return ControlAnswer{-1, EIO, {}}; });
  EXPECT_EQ(handler_.get_current_aon_fw_version(), nullptr);
  EXPECT_TRUE(log_.contains("Send SEND_IPC_CMD failed to get version"));
}

}  // namespace
