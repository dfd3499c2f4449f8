// A session capture names the connection of every record of a device node,
// and records a connection closed before the next one of its node opens,
// even when the device finds both at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "platform/os.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/dfu_message.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::sim {
namespace {

TEST(CaptureStreams, ReconnectsAreRecordedInOrderWithTheirStreams) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  DeviceOptions options;
  options.running_at_start = true;
  options.capture_file = root.path() + "/sim/session.pcapng";
  {
    VirtualDevice device(root.path(), options);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(platform::close(platform::open("/dev/marlo_com_dev", O_RDWR)), 0);
    // The DFU channel's thread holds its first packet until the host has
    // closed that connection and opened the next one.
    device.at_packet(1, [&device] {
      struct pollfd next = {device.dfu().node().listen_fd(), POLLIN, 0};
      return ::poll(&next, 1, 5000) == 1;
    });
    const int first = platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR);
    ASSERT_GE(first, 0);
    const Bytes request = make_dfu_message(kMgUpdtReq, {0u, 0u, 0u});
    ASSERT_EQ(platform::write(first, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    ASSERT_TRUE(marlo::test::wait_until([&] { return device.packets_received() == 1; }, std::chrono::seconds(5)));
    platform::close(first);
    const int second = platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR);
    ASSERT_GE(second, 0);
    platform::close(second);
    // No open connection proves both closes were seen only once the second
    // one has been accepted: before that the count is 0 as well.
    ASSERT_TRUE(marlo::test::wait_until(
        [&] {
          return device.dfu().node().opens_seen() == 2 && device.driver().open_connections() == 0 &&
                 device.dfu().open_connections() == 0;
        },
        std::chrono::seconds(5)));
  }
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(options.capture_file, &capture, &error)) << error;
  for (auto [node, connections] : {std::pair{CaptureInterface::Control, 3}, std::pair{CaptureInterface::Dfu, 2}}) {
    uint32_t open = 0, last = 0;
    int closes = 0;
    for (size_t i = 0; i < capture.packets.size(); ++i) {
      const CapturedPacket& p = capture.packets[i];
      if (p.interface != static_cast<uint32_t>(node)) continue;
      SCOPED_TRACE("frame " + std::to_string(i + 1) + " \"" + p.comment + "\"");
      const LifeEvent life = parse_life(p.comment);
      if (life.event == "open") {
        EXPECT_EQ(open, 0u) << "opened while stream " << open << " is open";
        EXPECT_EQ(life.stream, last + 1);
        open = last = life.stream;
      } else if (life.event == "closed by daemon") {
        EXPECT_EQ(life.stream, open);
        open = 0;
        ++closes;
      }
      EXPECT_EQ(p.stream, p.data.empty() ? life.stream : open);
    }
    EXPECT_EQ(closes, connections);
  }
}

}  // namespace
}  // namespace marlo::sim
