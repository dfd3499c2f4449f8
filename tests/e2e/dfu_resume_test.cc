// A download and the co-processor's power-up: an outage longer than the
// transport's reopen attempts is taken up at the power-up, and a power-up
// after the download leaves the DFU channel alone (one during it is the
// generated co-processor's power-events step).
#include <atomic>
#include <ostream>

#include "e2e_fixture.h"
#include "sim/uevent_sender.h"

namespace marlo::e2e {
namespace {

// Packets 1-2 are the erases, 3 the state query, 4 MG_UPDT_REQ, 5 the first
// IMG_INFO_RESP: packet 10 is a fragment answer in the image phase.
constexpr int kImagePhasePacket = 10;

class DfuResume : public E2e {
 protected:
  void start_updating_device() {
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::DeviceOptions options;
    options.dfu.fragment_size = 2048;
    start_device(options);
  }
  // The co-processor goes down and stays down (no power-up of its own).
  // Without `announced` its uevent is lost.
  void power_down(bool announced = true) {
    device_->coprocessor().unload("restart: going down");
    if (announced) sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerDown));
  }
  // With `lost_in_overrun` the uevent is lost and the daemon finds the
  // co-processor running when it re-reads the state.
  void power_up(bool lost_in_overrun = false) {
    ASSERT_EQ(device_->coprocessor().load(), 0);
    if (lost_in_overrun) {
      ASSERT_TRUE(sim::arm_uevent_overrun(root_));
    }
    ASSERT_TRUE(sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerUp)));
  }
  // The daemon's DFU transport has tried to reopen the channel `attempts`
  // times and given up each time.
  bool reopens_given_up(int attempts) {
    return wait_for([&] { return log_count("GLINK_int glink_open failed") >= attempts; });
  }
};

// How the daemon learns of the restart.
struct PowerEvents {
  const char* name;
  bool down_announced;  // the power-down uevent arrives
  bool up_lost;         // the power-up uevent is lost in an overrun
};
void PrintTo(const PowerEvents& events, std::ostream* out) { *out << events.name; }

class DfuResumeAtPowerUp : public DfuResume, public ::testing::WithParamInterface<PowerEvents> {};

TEST_P(DfuResumeAtPowerUp, OutageLongerThanTheReopenAttemptsIsTakenUp) {
  const PowerEvents events = GetParam();
  start_updating_device();
  std::atomic<bool> down{false};
  device_->at_packet(kImagePhasePacket, [&] {
    power_down(events.down_announced);
    down = true;
    return true;  // lost with the co-processor
  });
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return down.load(); }));
  // Still down when the transport has given up.
  ASSERT_TRUE(reopens_given_up(1));
  EXPECT_TRUE(device_->flash().has_partial_images());
  const sim::DfuStatus before = device_->dfu().status();
  EXPECT_GE(before.fragments, 1) << "the cut is in the image phase";

  power_up(events.up_lost);
  ASSERT_TRUE(wait_for([&] { return update_finished(); })) << "the download was not taken up at power-up";
  expect_flash_holds_shipped_firmware();
  const sim::DfuStatus after = device_->dfu().status();
  EXPECT_EQ(after.state_queries, before.state_queries + 1) << "resumed once, through a state query";
  EXPECT_EQ(after.crc_errors + after.protocol_errors, 0);
  EXPECT_EQ(log_count("uevent socket overrun"), events.up_lost ? 1 : 0);
}

// With both uevents delivered, this is the generated co-processor's restart
// during the download. With the power-up lost, the state found after the overrun shows it (the
// co-processor was known to be down). With both lost, the state shows a
// running co-processor as before the restart; only the lost channel tells.
INSTANTIATE_TEST_SUITE_P(Restarts, DfuResumeAtPowerUp,
                         ::testing::Values(PowerEvents{"PowerUpLostInAnOverrun", true, true},
                                           PowerEvents{"BothLostInAnOverrun", false, true}),
                         [](const ::testing::TestParamInfo<PowerEvents>& info) { return info.param.name; });

// A finished download is not taken up again, even after an outage that
// outlasted the transport's reopen attempts.
TEST_F(DfuResume, PowerUpAfterTheDownloadFinishedLeavesTheChannelClosed) {
  start_updating_device();
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  const int failed_reopens = log_count("GLINK_int glink_open failed");
  power_down();
  ASSERT_TRUE(reopens_given_up(failed_reopens + 1));
  const int opens = device_->dfu().node().opens_seen();
  const sim::DfuStatus before = device_->dfu().status();

  power_up();
  ASSERT_TRUE(wait_for([&] { return log_count("no unfinished download, DFU channel left as it is") >= 1; }));
  EXPECT_EQ(device_->dfu().node().opens_seen(), opens);
  EXPECT_EQ(device_->dfu().status().state_queries, before.state_queries);
  EXPECT_EQ(device_->dfu().status().sessions_started, 1);
}

}  // namespace
}  // namespace marlo::e2e
