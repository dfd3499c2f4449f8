// The host backend's packet-device read rules on a virtual packet channel.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "platform/os.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

class PacketDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    node_ = std::make_unique<marlo::sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
    // The open waits for the device's open status, so the device accepts on
    // its own thread.
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    fd_ = platform::open("/dev/glink_pkt_marlo_rma", O_RDWR);
    device.join();
    ASSERT_GE(fd_, 0);
    ASSERT_GE(peer_, 0);
  }
  void TearDown() override {
    if (fd_ >= 0) platform::close(fd_);
    if (peer_ >= 0) ::close(peer_);
  }
  void send(const std::string& packet) { ASSERT_TRUE(marlo::sim::send_packet(peer_, packet.data(), packet.size())); }
  std::string read(size_t count) {
    std::string out(count, '\0');
    ssize_t n = platform::read(fd_, out.data(), count);
    out.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return out;
  }
  short poll_events() {
    struct pollfd entry = {fd_, POLLIN, 0};
    return platform::poll(&entry, 1, 0) == 1 ? entry.revents : 0;
  }

  marlo::test::TestRoot root_;
  std::unique_ptr<marlo::sim::DeviceNode> node_;
  int fd_ = -1;
  int peer_ = -1;
};

TEST_F(PacketDeviceTest, ReadsNeverMixPacketsAndShortReadsKeepTheRest) {
  send("abcdef");
  send("XYZ");
  EXPECT_EQ(read(4), "abcd");
  EXPECT_TRUE(poll_events() & POLLIN) << "the kept remainder is readable";
  EXPECT_EQ(read(100), "ef");
  EXPECT_EQ(read(100), "XYZ");
  EXPECT_EQ(poll_events(), 0);
}

TEST_F(PacketDeviceTest, ClosedPeerShowsHangUpAloneAndReadsReturnZero) {
  send("last");
  ::close(peer_);
  peer_ = -1;
  EXPECT_TRUE(poll_events() & POLLIN) << "a packet sent before the close is still delivered";
  EXPECT_EQ(read(100), "last");
  struct pollfd entry = {fd_, POLLIN | POLLHUP, 0};
  ASSERT_EQ(platform::poll(&entry, 1, 0), 1);
  EXPECT_EQ(entry.revents, POLLHUP);
  char byte;
  EXPECT_EQ(platform::read(fd_, &byte, 1), 0);
}

TEST_F(PacketDeviceTest, PeerClosedWithOurPacketUnreadFailsTheNextReadOnceAfterThePoll) {
  ASSERT_EQ(platform::write(fd_, "request", 7), 7);
  ::close(peer_);  // the request still in its queue: a reset
  peer_ = -1;
  struct pollfd entry = {fd_, POLLIN | POLLHUP, 0};
  ASSERT_EQ(platform::poll(&entry, 1, 0), 1);
  EXPECT_TRUE(entry.revents & POLLIN) << "the error is there to be read";
  char byte;
  errno = 0;
  EXPECT_EQ(platform::read(fd_, &byte, 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(platform::read(fd_, &byte, 1), 0);
}

}  // namespace
