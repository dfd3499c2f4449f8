// The host backend's side of the virtual device: properties, the JSON log,
// device-node opens and the uevent socket.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/uevent.h>

#include "platform/os.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

TEST(HostBackendTest, PropertiesAreOneFilePerProperty) {
  marlo::test::TestRoot root;
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
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(root.at("/dev/__properties__"))) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 2);
}

TEST(HostBackendTest, LogFileHoldsOneJsonObjectPerEntry) {
  marlo::test::TestRoot root;
  std::string log_file = root.at("/log.json");
  ::setenv("MARLO_LOG_FILE", log_file.c_str(), 1);
  __android_log_print(ANDROID_LOG_INFO, nullptr, "plain %d", 1);
  __android_log_print(ANDROID_LOG_DEBUG, "marlo_fw_updater", "say \"hi\"\\\n\n");
  ::unsetenv("MARLO_LOG_FILE");
  __android_log_print(ANDROID_LOG_INFO, nullptr, "not in the file");

  std::ifstream in(log_file);
  std::string first, second, third;
  std::getline(in, first);
  std::getline(in, second);
  EXPECT_FALSE(std::getline(in, third));
  std::string tid = std::to_string(gettid());
  EXPECT_EQ(first, "{\"prio\": 4, \"tag\": null, \"tid\": " + tid + ", \"msg\": \"plain 1\"}");
  EXPECT_EQ(second, "{\"prio\": 3, \"tag\": \"marlo_fw_updater\", \"tid\": " + tid +
                        ", \"msg\": \"say \\\"hi\\\"\\\\\\n\\n\"}");
}

// The log file is taken from the environment as it is at each entry, whatever
// else changed in it between two entries (the backend does not search it
// again for every entry).
TEST(HostBackendTest, LogFileFollowsEveryChangeOfTheEnvironment) {
  marlo::test::TestRoot root;
  const std::string a = root.at("/a.json"), b = root.at("/b.json");
  const auto log = [](const char* text) { __android_log_print(ANDROID_LOG_INFO, "t", "%s", text); };
  const auto lines = [](const std::string& path) {
    std::ifstream in(path);
    std::string all, line;
    while (std::getline(in, line)) all += line.substr(line.find("\"msg\"")) + "|";
    return all;
  };
  ::setenv("MARLO_LOG_FILE", a.c_str(), 1);
  log("1");
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
  EXPECT_EQ(lines(a), "\"msg\": \"1\"}|\"msg\": \"2\"}|\"msg\": \"4\"}|");
  EXPECT_EQ(lines(b), "\"msg\": \"3\"}|");
}

TEST(HostBackendTest, DeviceNodeOpenFollowsTheOpenStatus) {
  marlo::test::TestRoot root;
  root.mkdir("/dev");
  errno = 0;
  EXPECT_EQ(platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);

  marlo::sim::DeviceNode node(root.at("/dev/glink_pkt_marlo_dfu"));
  node.fail_opens(1, EBUSY);
  std::thread device([&] {
    int fd = node.accept_open(5000);
    if (fd >= 0) {
      marlo::sim::send_packet(fd, "ab", 2);
      ::close(fd);
    }
  });
  EXPECT_EQ(platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR), -1);
  EXPECT_EQ(errno, EBUSY);
  int fd = platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR);
  ASSERT_GE(fd, 0);
  char buf[8] = {};
  EXPECT_EQ(platform::read(fd, buf, sizeof(buf)), 2);
  EXPECT_STREQ(buf, "ab");
  device.join();
  platform::close(fd);

  // A socket nobody listens on refuses the open.
  std::string stale = root.at("/dev/glink_pkt_marlo_rma");
  int listener = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, stale.c_str());
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ::close(listener);
  EXPECT_EQ(platform::open("/dev/glink_pkt_marlo_rma", O_RDWR), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(HostBackendTest, UeventReceiveReportsTheTrueLength) {
  marlo::test::TestRoot root;
  root.mkdir("/dev");
  int socket = uevent_open_socket(64 * 1024, true);
  ASSERT_GE(socket, 0);
  int sender = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strcpy(addr.sun_path, root.at("/dev/uevent").c_str());
  std::string big(2000, 'e');
  ASSERT_EQ(::sendto(sender, big.data(), big.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 2000);
  char buffer[1026];
  EXPECT_EQ(uevent_kernel_multicast_recv(socket, buffer, 1024), 2000);
  ::close(sender);
  ::close(socket);
}

}  // namespace
