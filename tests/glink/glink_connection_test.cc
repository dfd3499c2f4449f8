// Opening, reopening after a hang-up, closing and request I/O of the
// transport against a virtual packet channel.
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <utility>

#include "glink_channel_fixture.h"
#include "platform/host_testing.h"
#include "support/wait_until.h"

namespace marlo::test {
namespace {

using Connection = GlinkChannelTest;
using platform::host::FaultOp;
using namespace std::chrono_literals;

TEST_F(Connection, HangUpReopensTheChannelAndTheReaderGoesOn) {
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  EXPECT_EQ(glink_->connect_interface(true), -1) << "already open";
  EXPECT_TRUE(log_.contains("GLINK_int channel is already opened"));
  EXPECT_TRUE(errors(0).empty());
  int old_peer = peer_;
  std::thread device([this] { peer_ = node_->accept_open(2000); });
  ::close(old_peer);
  device.join();
  EXPECT_EQ(errors(1), Errors{GLINK_SSR});
  Bytes packet = framed(16, 4, 16);
  send(packet);
  ASSERT_EQ(packets(1).size(), 1u);

  // A failed reopen is reported all the same; sends are refused until the
  // user connects again.
  node_.reset();
  ::close(peer_);
  peer_ = -1;
  EXPECT_EQ(errors(2), (Errors{GLINK_SSR, GLINK_SSR}));
  unsigned char request[4] = {1, 2, 3, 4};
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -1);
  EXPECT_TRUE(log_.contains("is reconnecting, cannot send request"));
  node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
  ASSERT_EQ(connect_again(), 0);
  send(packet);
  EXPECT_EQ(packets(2).size(), 2u);
  EXPECT_FALSE(log_.contains("GLINK thread exit"));
}

TEST_F(Connection, MissingNodeFailsAfterThreeAttemptsReportedFromInsideTheConnect) {
  glink_ = std::make_unique<marlo_glink>(glink_conn_config{"glink_pkt_marlo_dfu", 44});
  Errors reported;
  glink_->register_cb({}, [&](glink_interface_error error) { reported.push_back(error); });
  EXPECT_EQ(glink_->connect_interface(true), -1);
  EXPECT_EQ(reported, Errors{GLINK_OPEN_FAILED});
  EXPECT_EQ(log_.count("GLINK_int about to open glink channel on dev node = /dev/glink_pkt_marlo_dfu"), 3);
}

TEST_F(Connection, DisconnectAndDestructionJoinTheReader) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  glink_->disconnect_interface();
  EXPECT_EQ(log_.count("GLINK thread exit"), 1);
  char byte;
  EXPECT_EQ(sim::receive_packet(peer_, &byte, 1, 2000), 0) << "the channel is closed";
  unsigned char request[2] = {0, 1};
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), 0) << "nothing to write to";
  EXPECT_EQ(glink_->trigger_event_cb([](uint8_t*, uint32_t) {}), -1);
  ::close(peer_);
  ASSERT_EQ(connect_again(), 0);
  glink_.reset();
  EXPECT_EQ(log_.count("GLINK thread exit"), 2);
}

// A callback that disconnects its own transport cannot join the reader it
// runs on: the reader leaves once the callback returns, and the owner's next
// connect, or its destruction of the transport, joins it. Neither returns
// while that callback is still running.
TEST_F(Connection, DisconnectFromACallbackLeavesTheReaderForTheOwnerToJoin) {
  enum class Owner { Reconnects, Destroys };
  for (const Owner owner : {Owner::Reconnects, Owner::Destroys}) {
    SCOPED_TRACE(owner == Owner::Reconnects ? "reconnects" : "destroys");
    ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
    std::promise<void> disconnected, released;
    std::shared_future<void> release = released.get_future().share();
    std::atomic<bool> returned{false};
    std::atomic<int> deliveries{0};
    glink_->register_cb(
        [&](uint8_t*, uint32_t) {
          if (deliveries++ != 0) return;
          glink_->disconnect_interface();
          disconnected.set_value();
          release.wait();
          returned = true;
        },
        {});
    send(framed(20, 8, 20));
    ASSERT_EQ(disconnected.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(log_.contains("disconnect on the reader thread, it leaves after the callback"));

    ::close(peer_);
    peer_ = -1;
    std::thread device;
    if (owner == Owner::Reconnects) device = std::thread([this] { peer_ = node_->accept_open(2000); });
    auto done = std::async(std::launch::async, [&] {
      if (owner == Owner::Reconnects) {
        EXPECT_EQ(glink_->connect_interface(true), 0);
      } else {
        glink_.reset();
      }
      return returned.load();
    });
    EXPECT_EQ(done.wait_for(50ms), std::future_status::timeout) << "the owner waits for the callback";
    released.set_value();
    EXPECT_TRUE(done.get()) << "the callback had returned when the owner went on";
    if (owner == Owner::Reconnects) {
      device.join();
      send(framed(20, 8, 20));
      EXPECT_TRUE(wait_until([&] { return log_.count("GLINK_int triggered event callback, got value 0") == 2; }, 5s))
          << "the new reader delivers";
      glink_.reset();
      ::close(peer_);
      peer_ = -1;
    }
    node_.reset();
  }
}

TEST_F(Connection, PacketHandedToAnotherThreadStaysValidAfterItsDelivery) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  std::promise<void> delivering, released;
  std::shared_future<void> release = released.get_future().share();
  glink_->register_cb(
      [&](uint8_t*, uint32_t) {
        delivering.set_value();
        release.wait();
      },
      {});
  const Bytes packet = framed(40, 8, 40);
  send(packet);
  ASSERT_EQ(delivering.get_future().wait_for(5s), std::future_status::ready);

  // This thread takes the packet while the reader delivers it, then lets the
  // reader finish and reads the bytes only once nothing is being delivered.
  Bytes seen;
  const int result = glink_->trigger_event_cb([&](uint8_t* data, uint32_t length) {
    released.set_value();
    EXPECT_TRUE(wait_until([&] { return glink_->trigger_event_cb([](uint8_t*, uint32_t) {}) == -1; }, 5s));
    seen.assign(data, data + length);
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(seen, packet);
}

TEST_F(Connection, ChannelOpenedOnDescriptorZeroIsMovedAboveTheStandardOnes) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  glink_->disconnect_interface();
  ::close(peer_);
  // As in a process started with standard input closed: the channel's open
  // is handed descriptor 0.
  const int saved_stdin = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(saved_stdin, 0);
  ::close(STDIN_FILENO);
  const int result = connect_again();
  struct stat zero;
  const bool channel_at_zero = ::fstat(STDIN_FILENO, &zero) == 0 && S_ISSOCK(zero.st_mode);
  if (result == 0) {
    send(framed(20, 8, 20));
    EXPECT_EQ(packets(1).size(), 1u);
    unsigned char request[3] = {1, 2, 3};
    EXPECT_EQ(glink_->send_request(request, sizeof(request)), 3);
  }
  glink_->disconnect_interface();  // before descriptor 0 is given back
  ::dup2(saved_stdin, STDIN_FILENO);
  ::close(saved_stdin);
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(channel_at_zero);
}

TEST_F(Connection, PacketArrivingWhileClosingIsDropped) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  Bytes packet = framed(100, 8, 100);
  send(Bytes(packet.begin(), packet.begin() + 30));
  ASSERT_TRUE(wait_log("GLINK_int pkt size to be read = 100"));
  std::thread closer([this] { glink_.reset(); });
  ASSERT_TRUE(wait_log("glink_disconnect"));  // logged once closing has begun
  send(Bytes(packet.begin() + 30, packet.end()));
  closer.join();
  EXPECT_TRUE(log_.contains("indication is coming while connection is being closed"));
  EXPECT_TRUE(packets(0).empty());
}

TEST_F(Connection, BusyWritesAreRetriedAHundredTimes) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  unsigned char request[10] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
  platform::host::inject_fault(channel_fd_, FaultOp::Write, EBUSY, 99);
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), 10);
  unsigned char seen[16];
  ASSERT_EQ(sim::receive_packet(peer_, seen, sizeof(seen), 2000), 10);
  EXPECT_EQ(0, std::memcmp(seen, request, sizeof(request)));
  platform::host::inject_fault(channel_fd_, FaultOp::Write, EBUSY, 100);
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -EBUSY);
  EXPECT_EQ(errors(1), Errors{GLINK_IO_ERROR});
}

TEST_F(Connection, ReadResponseReadsExactlyTheAskedBytes) {
  ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44, false), 0);
  send(Bytes{'a', 'b', 'c', 'd', 'e', 'f'});
  unsigned char buf[6] = {};
  ASSERT_EQ(glink_->read_response(buf, 4), 0);
  ASSERT_EQ(glink_->read_response(buf + 4, 2), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), 6), "abcdef");
  ::close(peer_);
  peer_ = -1;
  EXPECT_EQ(glink_->read_response(buf, 4), -1) << "a closed channel is not read for ever";
}

// Each operation takes the wakelock and gives it back, on its error paths
// too; the fixture checks the balance again when the case ends.
TEST_F(Connection, EveryChannelOperationGivesItsWakelockReferenceBack) {
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  size_t acquired = wakelock_released();
  const auto taken_and_given_back = [&] {
    const size_t now = wakelock_released();
    return std::exchange(acquired, now) < now;
  };
  unsigned char request[4] = {1, 2, 3, 4};
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), 4);
  EXPECT_TRUE(taken_and_given_back()) << "send";
  platform::host::inject_fault(channel_fd_, FaultOp::Write, EIO, 1);
  EXPECT_EQ(glink_->send_request(request, sizeof(request)), -EIO);
  EXPECT_TRUE(taken_and_given_back()) << "failed send";
  send(framed(16, 4, 16));
  ASSERT_EQ(packets(1).size(), 1u);
  EXPECT_TRUE(taken_and_given_back()) << "delivery";
  // A restart's hang-up: the device has taken the request first (closing
  // with it unread is a reset, which the reader sees as ECONNRESET).
  uint8_t taken[sizeof(request)];
  ASSERT_EQ(sim::receive_packet(peer_, taken, sizeof(taken), 2000), 4);
  const int old_peer = peer_;
  std::thread device([this] { peer_ = node_->accept_open(2000); });
  ::close(old_peer);
  device.join();
  ASSERT_EQ(errors(2).back(), GLINK_SSR);
  send(framed(16, 4, 16));
  ASSERT_EQ(packets(2).size(), 2u);
  EXPECT_TRUE(taken_and_given_back()) << "delivery after the reopen";

  glink_.reset();
  ::close(std::exchange(peer_, -1));
  ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44, false), 0);
  send(Bytes{'a', 'b'});
  unsigned char buf[2];
  EXPECT_EQ(glink_->read_response(buf, 2), 0);
  EXPECT_TRUE(taken_and_given_back()) << "synchronous read";
  ::close(std::exchange(peer_, -1));
  EXPECT_EQ(glink_->read_response(buf, 2), -1);
  EXPECT_TRUE(taken_and_given_back()) << "synchronous read of a closed channel";
}

}  // namespace
}  // namespace marlo::test
