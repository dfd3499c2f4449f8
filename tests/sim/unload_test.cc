// The daemon answers the co-processor and then takes it down (unload, soft
// reset) on the same thread. A link delivers a packet the moment it is
// written, so what the daemon wrote before a control command that takes the
// co-processor down is handled before it goes down, however slow the
// co-processor's side is to read it; else a download's last answer could be
// lost to the switch to FLASH mode that follows it.
#include <fcntl.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "common/le32.h"
#include "platform/os.h"
#include "sim/control_driver.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

TEST(VirtualDevice, PacketsWrittenBeforeAnUnloadAreHandledFirst) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  DeviceOptions options;
  options.running_at_start = true;
  VirtualDevice device(root.path(), options);
  device.misc().set_packet_observer([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    return false;
  });
  const int channel = platform::open("/dev/glink_pkt_marlo_custom_data", O_RDWR);
  ASSERT_GE(channel, 0);
  Bytes start_packet(16, 0);
  put_le32(&start_packet[4], 1);
  put_le32(&start_packet[8], 1500);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(platform::write(channel, start_packet.data(), start_packet.size()), 16);

  const int control = platform::open("/dev/marlo_com_dev", O_RDWR);
  ASSERT_GE(control, 0);
  uint8_t block[32] = {};
  put_le32(&block[20], kCmdUnload);
  EXPECT_EQ(platform::ioctl(control, kReqBoot, block), 0);
  EXPECT_EQ(device.misc().status().packets, 3);
  EXPECT_FALSE(device.coprocessor().running());
  platform::close(control);
  platform::close(channel);
}

}  // namespace
}  // namespace marlo::sim
