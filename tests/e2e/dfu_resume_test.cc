// A download and the co-processor's power-up: an outage longer than the
// transport's reopen attempts is taken up at the power-up. A power-up during
// or after the download is the generated co-processor's (its power-events
// and restart steps).
#include <atomic>
#include <ostream>

#include "e2e_fixture.h"
#include "sim/uevent_sender.h"

namespace marlo::e2e {
namespace {

// Packets 1-2 are the erases, 3 the state query, 4 MG_UPDT_REQ, 5 the first
// IMG_INFO_RESP: packet 10 is a fragment answer in the image phase.
constexpr int kImagePhasePacket = 10;

// How the daemon learns of the restart.
struct PowerEvents {
  const char* name;
  bool down_announced;  // the power-down uevent arrives; the power-up one is lost in an overrun
};

void PrintTo(const PowerEvents& events, std::ostream* out) { *out << events.name; }

class DfuResumeAtPowerUp : public E2e, public ::testing::WithParamInterface<PowerEvents> {};

TEST_P(DfuResumeAtPowerUp, OutageLongerThanTheReopenAttemptsIsTakenUp) {
  const PowerEvents events = GetParam();
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.dfu.fragment_size = 2048;
  start_device(options);
  std::atomic<bool> down{false};
  device_->at_packet(kImagePhasePacket, [&] {
    // Down and staying down (no power-up of its own); the uevent maybe lost.
    device_->coprocessor().unload("restart: going down");
    if (events.down_announced) sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerDown));
    down = true;
    return true;  // lost with the co-processor
  });
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return down.load(); }));
  // Still down when the transport has given up reopening the channel.
  ASSERT_TRUE(wait_for([&] { return log_count("GLINK_int glink_open failed") >= 1; }));
  EXPECT_TRUE(device_->flash().has_partial_images());
  const sim::DfuStatus before = device_->dfu().status();
  EXPECT_GE(before.fragments, 1) << "the cut is in the image phase";

  // A power-up lost in an overrun: the daemon finds the co-processor running
  // when it re-reads the state.
  ASSERT_EQ(device_->coprocessor().load(), 0);
  ASSERT_TRUE(sim::arm_uevent_overrun(root_));
  ASSERT_TRUE(sim::send_uevent(root_, sim::marlo_uevent(sim::kEventPowerUp)));
  ASSERT_TRUE(wait_for([&] { return update_finished(); })) << "the download was not taken up at power-up";
  expect_flash_holds_shipped_firmware();
  const sim::DfuStatus after = device_->dfu().status();
  EXPECT_EQ(after.state_queries, before.state_queries + 1) << "resumed once, through a state query";
  EXPECT_EQ(after.crc_errors + after.protocol_errors, 0);
  EXPECT_EQ(log_count("uevent socket overrun"), 1);
}

// With both uevents delivered, this is the generated co-processor's restart
// during the download. With the power-up lost, the state found after the overrun shows it (the
// co-processor was known to be down). With both lost, the state shows a
// running co-processor as before the restart; only the lost channel tells.
INSTANTIATE_TEST_SUITE_P(Restarts, DfuResumeAtPowerUp,
                         ::testing::Values(PowerEvents{"PowerUpLostInAnOverrun", true},
                                           PowerEvents{"BothLostInAnOverrun", false}),
                         [](const ::testing::TestParamInfo<PowerEvents>& info) { return info.param.name; });

}  // namespace
}  // namespace marlo::e2e
