// The host backend's side of the virtual device where the daemon's own cases
// would not show a fault: properties, the JSON log and packet-device reads.
// (Device-node opens and the uevent socket are the daemon's daily bread: the
// control-device, channel and restart-listener cases use them.)
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include <android/log.h>
#include <cutils/properties.h>

#include "platform/os.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

using marlo::test::TestRoot;

TEST(HostBackendTest, PropertiesAreOneFilePerProperty) {
  TestRoot root;
  char value[PROPERTY_VALUE_MAX];
  EXPECT_EQ(property_get("vendor.test.unset", value, "dflt"), 4);
  EXPECT_STREQ(value, "dflt");
  EXPECT_EQ(property_get("vendor.test.unset", value, nullptr), 0);
  EXPECT_STREQ(value, "");

  ASSERT_EQ(property_set("vendor.test.flag", "1"), 0);
  EXPECT_EQ(root.read("/dev/__properties__/vendor.test.flag"), "1");
  root.set_property("vendor.test.flag", "written by a tool");
  EXPECT_EQ(property_get("vendor.test.flag", value, "0"), 17);
  EXPECT_STREQ(value, "written by a tool");

  ASSERT_EQ(property_set("vendor.test.long", std::string(200, 'x').c_str()), 0);
  EXPECT_EQ(root.read("/dev/__properties__/vendor.test.long"), std::string(91, 'x'));
  // Writers leave nothing but the properties behind.
  const auto files = std::filesystem::directory_iterator(root.at("/dev/__properties__"));
  EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

// One JSON object per entry, in the file the environment names at each
// entry, whatever else changed in the environment between two entries (the
// backend does not search it again for every entry).
TEST(HostBackendTest, LogFileHoldsOneJsonObjectPerEntryAndFollowsTheEnvironment) {
  TestRoot root;
  const std::string a = root.at("/a.json"), b = root.at("/b.json");
  const auto log = [](const char* text) { __android_log_print(ANDROID_LOG_INFO, "t", "%s", text); };
  const auto lines = [](const std::string& path) {
    std::ifstream in(path);
    std::string all, line;
    while (std::getline(in, line)) all += line.substr(line.find("\"msg\"")) + "|";
    return all;
  };
  ::setenv("MARLO_LOG_FILE", a.c_str(), 1);
  __android_log_print(ANDROID_LOG_DEBUG, nullptr, "say \"hi\"\\\n\n");
  ::setenv("MARLO_TEST_OTHER", "x", 1);  // an entry added after it
  log("2");
  ::setenv("MARLO_LOG_FILE", b.c_str(), 1);  // replaced in place
  log("3");
  ::unsetenv("MARLO_LOG_FILE");
  log("none");
  ::unsetenv("MARLO_TEST_OTHER");            // the array shrinks while it is absent
  ::setenv("MARLO_LOG_FILE", a.c_str(), 1);  // and comes back at the end
  log("4");
  ::unsetenv("MARLO_LOG_FILE");
  log("none");  // a change of file writes what was queued for the last one

  std::ifstream in(a);
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(first, "{\"prio\": 3, \"tag\": null, \"tid\": " + std::to_string(gettid()) +
                       ", \"msg\": \"say \\\"hi\\\"\\\\\\n\\n\"}");
  EXPECT_EQ(lines(a), "\"msg\": \"say \\\"hi\\\"\\\\\\n\\n\"}|\"msg\": \"2\"}|\"msg\": \"4\"}|");
  EXPECT_EQ(lines(b), "\"msg\": \"3\"}|");
  std::string tagged;
  std::getline(std::ifstream(b), tagged);
  EXPECT_NE(tagged.find("\"prio\": 4, \"tag\": \"t\""), std::string::npos) << tagged;
}

// A packet device's read rules on a virtual packet channel.
class PacketDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.mkdir("/dev");
    // The open waits for the device's open status: the device accepts on its own thread.
    std::thread device([this] { peer_ = node_.accept_open(2000); });
    fd_ = platform::open("/dev/glink_pkt_marlo_rma", O_RDWR);
    device.join();
    ASSERT_GE(fd_, 0);
    ASSERT_GE(peer_, 0);
  }
  void TearDown() override {
    platform::close(fd_);
    if (peer_ >= 0) ::close(peer_);
  }
  void send(const std::string& packet) { ASSERT_TRUE(marlo::sim::send_packet(peer_, packet.data(), packet.size())); }
  // What one read of up to `count` bytes returns; "<n>" for a result n < 1, errno after "-1".
  std::string read(size_t count) {
    std::string out(count, '\0');
    errno = 0;
    const ssize_t n = platform::read(fd_, out.data(), count);
    return n > 0 ? out.substr(0, static_cast<size_t>(n)) : "<" + std::to_string(n) + " " + std::to_string(errno) + ">";
  }
  short poll_events() {
    struct pollfd entry = {fd_, POLLIN | POLLHUP, 0};
    return platform::poll(&entry, 1, 0) == 1 ? entry.revents : 0;
  }

  TestRoot root_;
  marlo::sim::DeviceNode node_{root_.at("/dev/glink_pkt_marlo_rma")};
  int fd_ = -1;
  int peer_ = -1;
};

// A read returns bytes of one packet only; a short read keeps the rest for
// the next. A peer's close shows as a hang-up alone once its packets are read.
TEST_F(PacketDeviceTest, ReadsNeverMixPacketsAndAClosedPeerHangsUpAfterItsLastPacket) {
  send("abcdef");
  send("XYZ");
  EXPECT_EQ(read(4), "abcd");
  EXPECT_EQ(poll_events(), POLLIN) << "the kept remainder is readable";
  EXPECT_EQ(read(100), "ef");
  EXPECT_EQ(read(100), "XYZ");
  EXPECT_EQ(poll_events(), 0);
  send("last");
  ::close(std::exchange(peer_, -1));
  EXPECT_EQ(read(100), "last") << "a packet sent before the close is still delivered";
  EXPECT_EQ(poll_events(), POLLHUP);
  EXPECT_EQ(read(1), "<0 0>");
}

TEST_F(PacketDeviceTest, PeerClosedWithOurPacketUnreadFailsTheNextReadOnce) {
  ASSERT_EQ(platform::write(fd_, "request", 7), 7);
  ::close(std::exchange(peer_, -1));  // the request still in its queue: a reset
  EXPECT_TRUE(poll_events() & POLLIN) << "the error is there to be read";
  EXPECT_EQ(read(1), "<-1 " + std::to_string(ECONNRESET) + ">");
  EXPECT_EQ(read(1), "<0 0>");
}

}  // namespace
