// The host backend's packet-device read after a reset, which the daemon's own
// cases would not show. (Packet boundaries and hang-ups show in the channel
// cases; device-node opens, properties, the JSON log and the uevent socket are
// the daemon's daily bread: every end-to-end case uses them.)
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "platform/os.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

TEST(PacketDeviceTest, PeerClosedWithOurPacketUnreadFailsTheNextReadOnce) {
  marlo::test::TestRoot root;
  root.mkdir("/dev");
  marlo::sim::DeviceNode node(root.at("/dev/glink_pkt_marlo_rma"));
  // The open waits for the device's open status: the device accepts on its own thread.
  int peer = -1;
  std::thread device([&] { peer = node.accept_open(2000); });
  const int fd = platform::open("/dev/glink_pkt_marlo_rma", O_RDWR);
  device.join();
  ASSERT_GE(fd, 0);
  ASSERT_GE(peer, 0);
  ASSERT_EQ(platform::write(fd, "request", 7), 7);
  ::close(peer);  // the request still in its queue: a reset
  struct pollfd entry = {fd, POLLIN | POLLHUP, 0};
  EXPECT_EQ(platform::poll(&entry, 1, 0), 1);
  EXPECT_TRUE(entry.revents & POLLIN) << "the error is there to be read";
  char byte;
  errno = 0;
  EXPECT_EQ(platform::read(fd, &byte, 1), -1);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(platform::read(fd, &byte, 1), 0);
  platform::close(fd);
}

}  // namespace
