// A co-processor that stops half-way through an answer, closes its end of a
// channel, or closes every channel it is given: no read waits for ever, no
// reader spins, reopens come at a bounded rate.
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <future>

#include "glink_channel_fixture.h"

namespace marlo::test {
namespace {

using HangUp = GlinkChannelTest;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST_F(HangUp, EndOfStreamInTheReaderIsAHangUp) {
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  const int old_peer = peer_;
  std::thread device([this] { peer_ = node_->accept_open(2000); });
  ::shutdown(old_peer, SHUT_WR);  // every read of the channel now returns 0
  device.join();
  EXPECT_EQ(errors(1), Errors{GLINK_SSR});
  send(framed(16, 4, 16));
  EXPECT_EQ(packets(1).size(), 1u);
  EXPECT_TRUE(log_.contains("GLINK_int end of stream on fd"));
  EXPECT_EQ(log_.count("GLINK_int glink_read fd"), 2) << "one read of the end of stream, one of the packet";
  ::close(old_peer);
}

// A peer that closes (or half-closes) every channel as soon as it is open:
// over half a second of scaled delays (the longest, 4 s, takes 80 ms) the
// transport reopens about ten times, where a busy loop reopens thousands of
// times.
TEST_F(HangUp, RepeatedHangUpsAreReopenedAtABoundedRate) {
  ::setenv("MARLO_TIME_SCALE", "0.02", 1);
  for (const bool half_close : {false, true}) {
    SCOPED_TRACE(half_close ? "half-close" : "close");
    node_.reset();  // its socket goes with it
    ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
    // Half-closed ends stay open until the case ends.
    const auto hang_up = [half_close](int fd) { return half_close ? ::shutdown(fd, SHUT_WR) : ::close(fd); };
    std::atomic<bool> stop{false};
    std::vector<int> kept{peer_};
    std::thread device([&] {
      while (!stop) {
        const int fd = node_->accept_open(50);
        if (fd >= 0 && hang_up(fd) == 0 && half_close) kept.push_back(fd);
      }
    });
    const size_t lines_before = log_.entries().size();
    hang_up(std::exchange(peer_, -1));
    std::this_thread::sleep_for(500ms);
    const int reopens = node_->opens_seen() - 1;
    const size_t lines = log_.entries().size() - lines_before;
    glink_.reset();  // stops the reader in whatever wait it is
    stop = true;
    device.join();
    if (half_close) {
      for (int fd : kept) ::close(fd);
    }
    EXPECT_GE(reopens, 4);
    EXPECT_LE(reopens, 40);
    EXPECT_LE(lines, 1000u) << "log lines in the window";
    EXPECT_TRUE(log_.contains("hung up again before any packet came, reopening in 4000 ms"));
  }
}

TEST_F(HangUp, DisconnectEndsTheWaitBeforeAReopen) {
  ::setenv("MARLO_TIME_SCALE", "40", 1);  // the first delay takes 10 s
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  const int old_peer = peer_;
  std::thread device([this] {
    peer_ = node_->accept_open(2000);
    ::shutdown(peer_, SHUT_WR);
  });
  ::shutdown(old_peer, SHUT_WR);
  device.join();
  ASSERT_EQ(errors(1), Errors{GLINK_SSR});
  ASSERT_TRUE(wait_log("reopening in 250 ms"));
  unsigned char request[4] = {1, 2, 3, 4};
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -1) << "refused while the channel is down";
  const auto start = Clock::now();
  glink_->disconnect_interface();
  EXPECT_LT(Clock::now() - start, 2s);
  EXPECT_EQ(log_.count("GLINK thread exit"), 1);
  EXPECT_EQ(node_->opens_seen(), 2) << "no reopen after the disconnect";
  ::close(old_peer);
}

// The whole answer arrives within the poll time-out, or the read fails as a
// silent co-processor's does, and gives its wakelock reference back.
TEST_F(HangUp, SynchronousReadOfAnAnswerThatStopsFails) {
  enum class Then { Silence, EndOfStream };
  struct Case {
    const char* name;
    size_t answered;
    Then then;
    std::chrono::milliseconds at_least, at_most;
  };
  const Case cases[] = {
      {"short answer, then silence", 16, Then::Silence, 1500ms, 3500ms},
      {"short answer, then end of stream", 16, Then::EndOfStream, 0ms, 1000ms},
      {"end of stream before any answer", 0, Then::EndOfStream, 0ms, 1000ms},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    node_.reset();  // its socket goes with it
    ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44, false), 0);
    if (c.answered > 0) send(Bytes(c.answered, 7));
    if (c.then == Then::EndOfStream) ::shutdown(peer_, SHUT_WR);
    const int zero_reads = log_.count("Zero length packet received");
    const auto start = Clock::now();
    unsigned char answer[24];
    auto read = std::async(std::launch::async, [&] { return glink_->read_response(answer, sizeof(answer)); });
    if (read.wait_for(4s) != std::future_status::ready) {
      ADD_FAILURE() << "the read did not end";
      ::close(std::exchange(peer_, -1));  // lets the read end
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_EQ(read.get(), -1);
    EXPECT_GE(elapsed.count(), c.at_least.count());
    EXPECT_LE(elapsed.count(), c.at_most.count());
    EXPECT_LE(log_.count("Zero length packet received") - zero_reads, 1);
    EXPECT_EQ(client_wakelock::get_instance()->references(), 0);
    glink_.reset();
    if (peer_ >= 0) ::close(std::exchange(peer_, -1));
  }
}

}  // namespace
}  // namespace marlo::test
