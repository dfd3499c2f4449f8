// The packet-channel transport against a virtual packet channel: opening,
// framing, request and answer I/O, hang-ups and reopens. Every case ends with
// no wakelock reference held.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "comhandler/client_wakelock.h"
#include "common/le32.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "platform/host_testing.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::test {
namespace {

using Bytes = std::vector<uint8_t>;
using Errors = std::vector<glink_interface_error>;
using platform::host::FaultOp;
using namespace std::chrono_literals;

class Glink : public ::testing::Test {
 protected:
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.mkdir("/dev");
  }
  void TearDown() override {
    glink_.reset();  // before the peer hangs up, or the reader would reopen
    if (peer_ >= 0) ::close(peer_);
    // Every wakelock reference given back (a reader may still be finishing a
    // delivery).
    client_wakelock* wakelock = client_wakelock::get_instance();
    EXPECT_TRUE(wait_until([&] { return wakelock->references() == 0; }, 5s))
        << "a channel operation kept its wakelock reference";
  }

  // A fresh transport on a fresh node of `channel`, connected.
  int connect(const char* channel, uint32_t read_size) {
    glink_.reset();
    node_.reset();  // its socket goes with it
    node_ = std::make_unique<sim::DeviceNode>(root_.at(std::string("/dev/") + channel));
    glink_ = std::make_unique<marlo_glink>(glink_conn_config{channel, read_size});
    {
      std::lock_guard<std::mutex> lock(mutex_);
      packets_.clear();
      errors_.clear();
    }
    glink_->register_cb([this](uint8_t* data, uint32_t length) { record(&packets_, Bytes(data, data + length)); },
                        [this](glink_interface_error error) { record(&errors_, error); });
    return connect_again();
  }
  // The device accepts on its own thread: an open waits for its status.
  int connect_again() {
    if (peer_ >= 0) ::close(std::exchange(peer_, -1));
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    const int result = glink_->connect_interface(true);
    device.join();
    return result;
  }
  // The peer hangs up (closes, or shuts its sending side) and the device
  // accepts the transport's reopen.
  void hang_up_and_accept_reopen(bool half_close) {
    const int old_peer = std::exchange(peer_, -1);
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    half_close ? ::shutdown(old_peer, SHUT_WR) : ::close(old_peer);
    device.join();
    if (half_close) ::close(old_peer);
  }
  // The descriptor of this process connected to the node at `path` (the
  // transport's channel), or -1.
  static int connected_descriptor(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int fd = std::atoi(entry.path().filename().c_str());
      struct sockaddr_un peer = {};
      socklen_t length = sizeof(peer);
      if (::getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &length) == 0 && peer.sun_family == AF_UNIX &&
          path == peer.sun_path) {
        return fd;
      }
    }
    return -1;
  }

  void send(const Bytes& packet) { ASSERT_TRUE(sim::send_packet(peer_, packet.data(), packet.size())); }
  // `size` bytes with `length` little-endian at `offset`.
  static Bytes framed(size_t size, size_t offset, uint32_t length) {
    Bytes packet(size);
    for (size_t i = 0; i < size; ++i) packet[i] = static_cast<uint8_t>(i * 7 + 1);
    if (offset + 4 <= size) put_le32(packet.data() + offset, length);
    return packet;
  }
  // A packet the first read completed: zero-padded to the first read's size.
  static Bytes padded(Bytes packet, size_t read_size) {
    packet.resize(std::max(packet.size(), read_size), 0);
    return packet;
  }

  // What was reported, once at least `count` entries are there (or 5 s).
  std::vector<Bytes> packets(size_t count) { return wait(packets_, count); }
  Errors errors(size_t count) { return wait(errors_, count); }

  TestRoot root_;
  LogCapture log_;
  std::unique_ptr<sim::DeviceNode> node_;
  std::unique_ptr<marlo_glink> glink_;
  int peer_ = -1;

 private:
  template <typename T>
  void record(std::vector<T>* list, T entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    list->push_back(std::move(entry));
  }
  template <typename T>
  std::vector<T> wait(const std::vector<T>& list, size_t count) {
    wait_until(
        [&] {
          std::lock_guard<std::mutex> lock(mutex_);
          return list.size() >= count;
        },
        5s);
    std::lock_guard<std::mutex> lock(mutex_);
    return list;
  }

  std::mutex mutex_;
  std::vector<Bytes> packets_;
  Errors errors_;
};

// The length field's place in each framed channel's header, and how many
// bytes the first read must bring for it to be there. A packet the first read
// completes is delivered as read; one with a zero length field is not
// delivered; a longer one is read whole over several reads.
TEST_F(Glink, FramedChannelsReadTheLengthAtTheirOffset) {
  const struct {
    const char* channel;
    uint32_t read_size;
    size_t offset, threshold;
  } cases[] = {{"glink_pkt_marlo_dfu", 44, 8, 17}, {"glink_pkt_marlo_rma", 40, 4, 13}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.channel);
    ASSERT_EQ(connect(c.channel, c.read_size), 0);
    const int partial_reads = log_.count("GLINK_int partial read bytes = ");
    Bytes too_short = framed(c.threshold - 1, c.offset, 1000);
    Bytes long_packet = framed(300, c.offset, 300);
    send(too_short);
    send(framed(c.threshold, c.offset, 0));
    send(long_packet);
    EXPECT_EQ(packets(2), (std::vector<Bytes>{padded(too_short, c.read_size), long_packet}));
    EXPECT_TRUE(log_.contains("GLINK_int buffer len is 0"));
    EXPECT_EQ(log_.count("GLINK_int partial read bytes = ") - partial_reads, 4);
  }
  ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44), 0);
  send(Bytes{1, 2, 3});
  EXPECT_EQ(packets(1), std::vector<Bytes>{padded({1, 2, 3}, 44)}) << "no length field: the whole first read";
}

TEST_F(Glink, LyingLengthFieldsNeverReachPastWhatWasReceived) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  Bytes long_packet = framed(60, 8, 20);  // cut to 20; the rest is read as a packet
  Bytes head = framed(30, 8, 100);        // the next packet fills the rest, never more
  Bytes tail = framed(80, 8, 80);
  for (const Bytes& p : {long_packet, head, tail}) send(p);
  Bytes merged = head;
  merged.insert(merged.end(), tail.begin(), tail.begin() + 70);
  EXPECT_EQ(packets(4), (std::vector<Bytes>{Bytes(long_packet.begin(), long_packet.begin() + 20),
                                            padded(Bytes(long_packet.begin() + 44, long_packet.end()), 44), merged,
                                            padded(Bytes(tail.begin() + 70, tail.end()), 44)}));
  // Above 1 MiB: a failed read; the reader goes on.
  send(framed(40, 8, (1u << 20) + 1));
  EXPECT_EQ(errors(1), Errors{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("above the maximum packet size"));
  // Truncated by a hang-up: a failed read, then the hang-up.
  node_.reset();  // the reopen fails at once
  send(head);
  ::close(std::exchange(peer_, -1));
  EXPECT_EQ(errors(3), (Errors{GLINK_IO_ERROR, GLINK_IO_ERROR, GLINK_SSR}));
  EXPECT_EQ(packets(0).size(), 4u);
}

// An EAGAIN read is retried twice and fails at the third; an EBUSY write is
// retried until the hundredth.
TEST_F(Glink, TransientErrorsAreRetriedABoundedNumberOfTimes) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  const int channel_fd = connected_descriptor(node_->path());
  Bytes first = framed(20, 8, 20), second = framed(24, 8, 24);
  platform::host::inject_fault(channel_fd, FaultOp::Read, EAGAIN, 2);
  send(first);
  ASSERT_EQ(packets(1).size(), 1u);
  EXPECT_TRUE(errors(0).empty());
  platform::host::inject_fault(channel_fd, FaultOp::Read, EAGAIN, 3);
  send(second);
  EXPECT_EQ(errors(1), Errors{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("GLINK_int read has failed with errno = -11"));
  EXPECT_EQ(packets(2), (std::vector<Bytes>{first, second})) << "the packet waits for the next pass";

  unsigned char request[10] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
  platform::host::inject_fault(channel_fd, FaultOp::Write, EBUSY, 99);
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), 10);
  unsigned char seen[16];
  ASSERT_EQ(sim::receive_packet(peer_, seen, sizeof(seen), 2000), 10);
  EXPECT_EQ(0, std::memcmp(seen, request, sizeof(request)));
  platform::host::inject_fault(channel_fd, FaultOp::Write, EBUSY, 100);
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -EBUSY);
  EXPECT_EQ(errors(2), (Errors{GLINK_IO_ERROR, GLINK_IO_ERROR}));
}

// A hang-up, by a close or by end of stream (a half-close), is reported as a
// restart; the transport reopens the channel and the reader goes on.
TEST_F(Glink, HangUpReopensTheChannelAndTheReaderGoesOn) {
  for (const bool half_close : {false, true}) {
    SCOPED_TRACE(half_close ? "half-close" : "close");
    ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
    EXPECT_EQ(glink_->connect_interface(true), -1) << "already open";
    const int reads = log_.count("GLINK_int glink_read fd");
    hang_up_and_accept_reopen(half_close);
    EXPECT_EQ(errors(1), Errors{GLINK_SSR});
    send(framed(16, 4, 16));
    EXPECT_EQ(packets(1).size(), 1u);
    EXPECT_EQ(log_.count("GLINK_int glink_read fd") - reads, half_close ? 2 : 1) << "no read spins on the hang-up";
    // A packet came: the next hang-up is an ordinary restart, reopened at once.
    hang_up_and_accept_reopen(half_close);
    EXPECT_EQ(errors(2), (Errors{GLINK_SSR, GLINK_SSR}));
  }
  EXPECT_TRUE(log_.contains("GLINK_int end of stream on fd"));
  EXPECT_FALSE(log_.contains("hung up again before any packet came"));

  // A failed reopen is reported all the same; sends are refused until the
  // user connects again; the reader goes on all the while.
  const int exits = log_.count("GLINK thread exit");
  node_.reset();
  ::close(std::exchange(peer_, -1));
  EXPECT_EQ(errors(3), (Errors{GLINK_SSR, GLINK_SSR, GLINK_SSR}));
  unsigned char request[4] = {1, 2, 3, 4};
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -1);
  EXPECT_TRUE(log_.contains("is reconnecting, cannot send request"));
  node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
  ASSERT_EQ(connect_again(), 0);
  send(framed(16, 4, 16));
  EXPECT_EQ(packets(2).size(), 2u);
  EXPECT_EQ(log_.count("GLINK thread exit"), exits);
}

// A peer that half-closes every channel as soon as it is open (a close
// takes the same path once seen): over half a second of scaled delays (the
// longest, 4 s, takes 80 ms) the transport reopens about ten times, where a
// busy loop reopens thousands of times.
TEST_F(Glink, RepeatedHangUpsAreReopenedAtABoundedRate) {
  ::setenv("MARLO_TIME_SCALE", "0.02", 1);
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  std::atomic<bool> stop{false};
  std::vector<int> kept{peer_};  // half-closed ends stay open until the case ends
  std::thread device([&] {
    while (!stop) {
      const int fd = node_->accept_open(50);
      if (fd >= 0 && ::shutdown(fd, SHUT_WR) == 0) kept.push_back(fd);
    }
  });
  const size_t lines_before = log_.entries().size();
  ::shutdown(std::exchange(peer_, -1), SHUT_WR);
  std::this_thread::sleep_for(500ms);
  const int reopens = node_->opens_seen() - 1;
  const size_t lines = log_.entries().size() - lines_before;
  glink_.reset();  // stops the reader in whatever wait it is
  stop = true;
  device.join();
  for (int fd : kept) ::close(fd);
  EXPECT_GE(reopens, 4);
  EXPECT_LE(reopens, 40);
  EXPECT_LE(lines, 1000u) << "log lines in the window";
  EXPECT_TRUE(log_.contains("hung up again before any packet came, reopening in 4000 ms"));
}

// A disconnect ends the reader's wait before a reopen at once (the first
// wait takes 10 s here), and nothing is reopened after it.
TEST_F(Glink, DisconnectEndsTheWaitBeforeAReopen) {
  ::setenv("MARLO_TIME_SCALE", "40", 1);
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  const int old_peer = std::exchange(peer_, -1);
  std::thread device([this] {
    peer_ = node_->accept_open(2000);
    ::shutdown(peer_, SHUT_WR);
  });
  ::shutdown(old_peer, SHUT_WR);
  device.join();
  ASSERT_TRUE(wait_until([&] { return log_.contains("reopening in 250 ms"); }, 5s));
  const auto start = std::chrono::steady_clock::now();
  glink_->disconnect_interface();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(node_->opens_seen(), 2) << "no reopen after the disconnect";
  EXPECT_EQ(glink_->send_request(nullptr, 0), 0) << "nothing to write to";
  ::close(old_peer);
}

}  // namespace
}  // namespace marlo::test
