// The restart listener fed with datagrams on its uevent socket, as the
// kernel would send them.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "daemon/SSRHandler.h"
#include "daemon/marlo_deamon_log.h"
#include "sim/uevent_sender.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

using namespace std::chrono_literals;

namespace {

class SSRHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    handler_ = std::make_unique<SSRHandler>(nullptr);
    ASSERT_TRUE(marlo::test::wait_until([&] { return root_.exists("/dev/uevent"); }, 5s));
  }
  void send(const std::string& message) { ASSERT_TRUE(marlo::sim::send_uevent(root_.path(), message)); }

  // A uevent of the control device carrying the given strings.
  static std::string event(const std::string& strings) {
    return std::string("change@/devices/platform/marlo_com_dev\0ACTION=change\0", 53) + strings;
  }

  bool wait_for_event(int32_t value) {
    return marlo::test::wait_until([&] { return handler_->lastEvent() == value; }, 5s);
  }
  // Messages are handled one after another on the listener's thread: once a
  // later message's value is stored, everything sent before it has been
  // acted upon. The way to check that an event did nothing.
  bool all_handled(int32_t marker) {
    send(marlo::sim::marlo_uevent(marker));
    return wait_for_event(marker);
  }

  marlo::test::TestRoot root_;
  marlo::test::LogCapture log_;
  std::unique_ptr<SSRHandler> handler_;
};

// Only power events of the control device in messages of at most 1024
// bytes count; power-up and power-down keep "vendor.marlo.boot_complete" in
// step, other values are only remembered.
TEST_F(SSRHandlerTest, PowerEventsOfTheControlDeviceKeepBootCompleteInStep) {
  struct Case {
    std::string message;
    int32_t remembered;         // the event value stored, 0 for a message ignored
    std::string boot_complete;  // "untouched": the message changed nothing
  };
  const Case cases[] = {
      {marlo::sim::marlo_uevent(4), 4, "1"},
      {marlo::sim::marlo_uevent(1), 1, "0"},
      {marlo::sim::marlo_uevent(2), 2, "untouched"},
      {std::string("change@/devices/platform/other\0MARLO_EVENT=4\0", 45), 0, "untouched"},
      {std::string("\0marlo_com_dev\0MARLO_EVENT=4\0", 29), 0, "untouched"},   // first byte NUL
      {marlo::sim::marlo_uevent(4) + std::string(1100, 'x'), 0, "untouched"},  // over 1024 bytes
      // Exactly 1024 bytes, ending in the event string without its NUL.
      {event("") + std::string(1024 - event("").size() - 14, 'f') + std::string("\0MARLO_EVENT=1", 14), 1, "0"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    root_.set_property("vendor.marlo.boot_complete", "untouched");
    send(cases[i].message);
    if (cases[i].remembered != 0) {
      ASSERT_TRUE(wait_for_event(cases[i].remembered));
    }
    ASSERT_TRUE(all_handled(100 + static_cast<int32_t>(i)));
    EXPECT_EQ(root_.property("vendor.marlo.boot_complete"), cases[i].boot_complete);
  }
  EXPECT_TRUE(log_.contains("marlo is powered up"));
  EXPECT_EQ(log_.count("Message length is not correct \n"), 1);
}

// A peer flooding the listener with oversized messages gets ten lines and a
// summary, not a line per message. The test holds the daemon's clock all but
// still (a large time scale), then lets a second of it pass at once.
TEST_F(SSRHandlerTest, FloodOfBadMessagesIsLoggedTenTimesAndSummarised) {
  ::setenv("MARLO_TIME_SCALE", "1000", 1);
  for (int i = 0; i < 25; ++i) send(event("MARLO_EVENT=7") + std::string(1100, 'x'));
  ASSERT_TRUE(all_handled(100));
  EXPECT_EQ(log_.count("Message length is not correct"), 10);
  // The daemon's clock counts from its first reading: 20 ms are now 20 s of it
  // however quickly the flood went by.
  ::setenv("MARLO_TIME_SCALE", "0.001", 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  marlo_deamon_log::flush_repeat_summaries();
  EXPECT_TRUE(log_.contains("Message length is not correct  ... repeated 15 times"));
}

}  // namespace
