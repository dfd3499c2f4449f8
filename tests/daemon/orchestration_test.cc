// Boot-mode decisions against a scripted control device.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "daemon/DFUCallback.h"
#include "daemon/MarloDaemon.h"
#include "support/fake_control_device.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

using marlo::test::ControlAnswer;
using marlo::test::ControlRequest;

namespace {

constexpr uint32_t kSpiFree = 0x80205603;
constexpr uint32_t kSpiBusy = 0x80205604;
constexpr uint32_t kReset = 0xc0205605;

class OrchestrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    device_ = std::make_unique<marlo::test::FakeControlDevice>(root_.at("/dev/marlo_com_dev"));
    root_.write("/sys/class/remoteproc/remoteproc0/name", "soc:zeno,rproc-marlo\n");
    daemon_.getMarloPILDevice();
  }

  // Answers the boot-mode query with `mode` and every load with `load`.
  void script(int mode, int load) {
    device_->set_responder([=](const ControlRequest& request) {
      ControlAnswer answer;
      if (request.request == 0xc0205609 && request.cmd() == 6) answer.result = mode;
      if (request.request == 0xc0205609 && request.cmd() == 3) answer.result = load;
      return answer;
    });
  }

  // The requests as short names: "SPI_BUSY", "RESET", "BOOT.3" ...
  std::string trace() const {
    std::string out;
    for (const ControlRequest& r : device_->requests()) {
      if (!out.empty()) out += " ";
      if (r.request == kSpiFree)
        out += "SPI_FREE";
      else if (r.request == kSpiBusy)
        out += "SPI_BUSY";
      else if (r.request == kReset)
        out += "RESET";
      else
        out +=
            "BOOT." + std::to_string(r.cmd()) + (r.cmd() == 5 || r.cmd() == 8 ? "=" + std::to_string(r.value()) : "");
    }
    return out;
  }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<marlo::test::FakeControlDevice> device_;
  MarloDaemon daemon_;
};

TEST_F(OrchestrationTest, ChangeBootmodeGivesUpSilentlyAfterThreeLoads) {
  script(1, -1);
  daemon_.changeBootmode(HOST);
  EXPECT_EQ(trace(), "BOOT.5=0 BOOT.4 SPI_BUSY BOOT.0 BOOT.3 BOOT.0 BOOT.3 BOOT.0 BOOT.3 SPI_FREE");
  EXPECT_FALSE(log_.contains("boot complete"));
}

TEST_F(OrchestrationTest, ChangeBootmodeToHostKeepsTheBusBusyAndToFlashFreesIt) {
  script(1, 0);
  root_.write("/sys/class/remoteproc/remoteproc0/state", "running");
  daemon_.changeBootmode(HOST);
  EXPECT_EQ(trace(), "BOOT.5=0 BOOT.4 SPI_BUSY BOOT.0 BOOT.3");
  EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), "<unset>");

  daemon_.changeBootmode(FLASH);
  EXPECT_EQ(trace(), "BOOT.5=0 BOOT.4 SPI_BUSY BOOT.0 BOOT.3 BOOT.5=1 BOOT.4 SPI_BUSY BOOT.0 BOOT.3 SPI_FREE BOOT.8=1");
  EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), "1");
}

TEST_F(OrchestrationTest, FallBackFromFlashToHostThatDoesNotLoad) {
  script(1, -1);
  EXPECT_EQ(daemon_.defaultHandler(), -1);
  EXPECT_EQ(trace(), "BOOT.6 BOOT.5=0 RESET BOOT.3");
  EXPECT_TRUE(log_.contains("Marlo boot fail even on fallback to host from flash"));
  EXPECT_EQ(g_daemon_state.load(), 0);

  script(0, -1);
  EXPECT_EQ(daemon_.defaultHandler(), -1);
  EXPECT_TRUE(log_.contains("Marlo boot failed in Host Mode."));
}

// A boot mode the daemon does not know is passed through from the driver and
// only logged: no switch, no progress report, no download.
TEST_F(OrchestrationTest, UnknownBootModeIsOnlyLogged) {
  script(2, 0);
  const int mode = MarloComHandler::getInstance()->get_marlo_boot_mode();
  EXPECT_EQ(mode, 2);
  daemon_.handleBootComplete(mode);
  EXPECT_TRUE(log_.contains("Unknown marlo boot mode"));
  EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), "1");
  EXPECT_EQ(trace(), "BOOT.6 BOOT.3");  // the mode query and the version query, nothing after
}

TEST_F(OrchestrationTest, CallbackReactsToChannelErrorsAndMiscDataProgress) {
  DFUCallback with_device(MarloComHandler::getInstance(), &daemon_);
  size_t logged = log_.entries().size();
  with_device.handleDFUResponse("progress", marlo_fw_updater::Callback::STATUS_INFO);
  with_device.handleSHMResponse("progress", marlo_fw_updater::Callback::STATUS_INFO);
  EXPECT_EQ(log_.entries().size(), logged) << "progress is not logged";

  with_device.handleDFUResponse("Marlo dfu channel open failed", marlo_fw_updater::Callback::STATUS_CHANNEL_ERROR);
  EXPECT_TRUE(log_.contains("handleDFUResponse: Marlo dfu channel open failed"));
  with_device.handleSHMResponse("started", marlo_fw_updater::Callback::STATUS_STARTED);
  EXPECT_EQ(root_.property("vendor.zt_aon.misc_update"), "0");
  with_device.handleSHMResponse("finished", marlo_fw_updater::Callback::STATUS_SUCCESS);
  EXPECT_EQ(root_.property("vendor.zt_aon.misc_update"), "1");
  EXPECT_EQ(trace(), "BOOT.8=1 BOOT.8=2 BOOT.8=3");
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
