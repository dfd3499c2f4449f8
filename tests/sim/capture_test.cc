// The session capture: the pcapng blocks as written, and what a session
// through the virtual device leaves in them.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "common/le32.h"
#include "host_side.h"
#include "platform/os.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/capture/session_capture.h"
#include "sim/uevent_sender.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

std::vector<uint8_t> file_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(Capture, BlocksAreLaidOutAsPcapng) {
  marlo::test::TestRoot root;
  std::string path = root.path() + "/s.pcapng";
  {
    SessionCapture capture(path, "variant=flash\n");
    const uint8_t five[] = {1, 2, 3, 4, 5};
    capture.packet(CaptureInterface::Rma, Direction::Outbound, five, sizeof(five));
    capture.life(CaptureInterface::Dfu, Direction::Inbound, "closed by co-processor");
  }
  std::vector<uint8_t> b = file_bytes(path);
  // Walk the blocks by their lengths: types in order, each length a multiple
  // of 4 and repeated at the block's end.
  std::vector<uint32_t> types;
  size_t at = 0, last_epb = 0;
  while (at + 12 <= b.size()) {
    uint32_t length = get_le32(&b[at + 4]);
    ASSERT_EQ(length % 4, 0u);
    ASSERT_LE(at + length, b.size());
    EXPECT_EQ(get_le32(&b[at + length - 4]), length);
    types.push_back(get_le32(&b[at]));
    if (types.back() == 6 && types.size() == 7) last_epb = at;
    at += length;
  }
  EXPECT_EQ(at, b.size());
  EXPECT_EQ(types, (std::vector<uint32_t>{0x0a0d0d0a, 1, 1, 1, 1, 1, 6, 6}));
  EXPECT_EQ(get_le32(&b[8]), 0x1a2b3c4du);
  // The 5-byte packet: interface 3, lengths 5, data padded to 8, then
  // epb_flags = outbound and the end of options.
  const uint8_t* epb = &b[last_epb];
  EXPECT_EQ(get_le32(epb + 4), 28u + 8 + 8 + 4 + 4);
  EXPECT_EQ(get_le32(epb + 8), 3u);
  EXPECT_EQ(get_le32(epb + 20), 5u);
  EXPECT_EQ(get_le32(epb + 24), 5u);
  EXPECT_EQ(std::vector<uint8_t>(epb + 28, epb + 36), (std::vector<uint8_t>{1, 2, 3, 4, 5, 0, 0, 0}));
  EXPECT_EQ(get_le32(epb + 36), 0x00040002u);  // code 2, length 4
  EXPECT_EQ(get_le32(epb + 40), 2u);
  EXPECT_EQ(get_le32(epb + 44), 0u);

  CaptureFile f;
  std::string error;
  ASSERT_TRUE(read_capture(path, &f, &error)) << error;
  EXPECT_EQ(f.application, "marlo-sim");
  EXPECT_EQ(f.setup, "variant=flash\n");
  ASSERT_EQ(f.interfaces.size(), 5u);
  EXPECT_EQ(f.interfaces[2].link_type, 149);
  EXPECT_EQ(f.interfaces[2].name, "dev/glink_pkt_marlo_custom_data");
  ASSERT_EQ(f.packets.size(), 2u);
  EXPECT_EQ(f.packets[1].comment, "closed by co-processor");
  EXPECT_EQ(f.packets[1].flags, 1u);
  EXPECT_TRUE(f.packets[1].data.empty());

  // A cut file is refused, not read past its end.
  b.resize(b.size() - 6);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<long>(b.size()));
  EXPECT_FALSE(read_capture(path, &f, &error));
  EXPECT_NE(error.find("bad block length"), std::string::npos) << error;
}

TEST(Capture, RecordsTheSessionInOrderWithItsDirections) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path());
  std::string path = root.path() + "/session.pcapng";
  Bytes answer;
  {
    DeviceOptions options;
    options.running_at_start = true;
    options.restart_offline_ms = 1;
    options.capture_file = path;
    VirtualDevice device(root.path(), options);
    device.busy_control_opens(1);
    EXPECT_EQ(test::control(0xc0205609, 6).err, EBUSY);
    EXPECT_EQ(test::control(0xc0205609, 6).result, 1);  // GET_BOOT_MODE: FLASH
    int fd = test::open_node("/dev/glink_pkt_marlo_custom_data");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(test::write_packet(fd, Bytes(24, 7)));
    answer = test::read_packet(fd);
    ASSERT_FALSE(answer.empty());
    device.restart();
    EXPECT_TRUE(test::read_packet(fd).empty());  // hung up
    platform::close(fd);
  }
  CaptureFile f;
  std::string error;
  ASSERT_TRUE(read_capture(path, &f, &error)) << error;
  EXPECT_NE(f.setup.find("running=1\n"), std::string::npos);
  EXPECT_NE(f.setup.find("property.ro.vendor.zt_aon_presence=1\n"), std::string::npos);
  std::vector<std::string> seen;
  for (const CapturedPacket& p : f.packets) {
    std::string what = std::to_string(p.interface) + (p.flags == 2 ? ">" : p.flags == 1 ? "<" : "?");
    seen.push_back(what + (p.data.empty() ? p.comment : std::to_string(p.data.size())));
  }
  // In order on each interface (the daemon's close of the control device is
  // seen by the device's thread at its own pace). Control: refused open,
  // then open, request, answer, close. Misc: open, the packet, its answer,
  // the hang-up. Uevents: the restart's two.
  std::stable_sort(seen.begin(), seen.end(), [](const std::string& a, const std::string& b) { return a[0] < b[0]; });
  std::vector<std::string> expected = {"0>open refused errno 16",
                                       "0>open",
                                       "0>36",
                                       "0<40",
                                       "0>closed by daemon",
                                       "2>open",
                                       "2>24",
                                       "2<" + std::to_string(answer.size()),
                                       "2<closed by co-processor",
                                       "4<" + std::to_string(marlo_uevent(1).size()),
                                       "4<" + std::to_string(marlo_uevent(4).size())};
  EXPECT_EQ(seen, expected);
  auto misc_answer = std::find_if(f.packets.begin(), f.packets.end(), [](const CapturedPacket& p) {
    return p.interface == 2 && p.flags == 1 && !p.data.empty();
  });
  ASSERT_NE(misc_answer, f.packets.end());
  EXPECT_EQ(misc_answer->data, answer);
  EXPECT_EQ(std::string(f.packets.back().data.begin(), f.packets.back().data.end()), marlo_uevent(4));
}

}  // namespace
}  // namespace marlo::sim
