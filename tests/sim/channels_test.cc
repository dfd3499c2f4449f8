// The co-processor's side of the packet channels, driven by a minimal host.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "common/crc32.h"
#include "host_side.h"
#include "platform/os.h"
#include "sim/dfu_message.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::sim {
namespace {

using test::read_packet;
using test::write_packet;

struct Session {
  marlo::test::TestRoot root;
  FirmwareSet shipped = VirtualDevice::build_sample_root(root.path());
  std::unique_ptr<VirtualDevice> device;
  explicit Session(DeviceOptions options) {
    options.running_at_start = true;
    device = std::make_unique<VirtualDevice>(root.path(), options);
  }
};

// Answers one co-processor request from the shipped images; false when the
// packet was not a request the host answers.
bool answer(int fd, const Bytes& request, const FirmwareSet& set, bool corrupt = false) {
  uint32_t id = get_u32(request, 0), image = get_u32(request, 16);
  const Bytes* data = set.images.count(image) ? &set.images.at(image) : nullptr;
  Bytes reply;
  if (id == kImgInfoReq) {
    reply = make_dfu_message(kImgInfoResp, {image, data ? static_cast<uint32_t>(data->size()) : 0u, 0u});
  } else if (id == kImgOffsetReq) {
    uint32_t offset = get_u32(request, 20), len = get_u32(request, 24);
    Bytes payload;
    for (uint32_t w : {image, offset, len}) append_u32(payload, w);
    payload.insert(payload.end(), data->begin() + offset, data->begin() + offset + len);
    reply = make_dfu_message(kImgOffsetResp, payload);
    if (corrupt) reply.back() ^= 0xFF;
  } else if (id == kSessionEndReq) {
    reply = make_dfu_message(kSessionEndResp, {0u, 0u, 0u});
  } else {
    return false;
  }
  return write_packet(fd, reply);
}

TEST(DfuChannel, FullSessionWithEraseCorruptionAndDroppedChannel) {
  DeviceOptions options;
  options.flash = FlashContents::Older;
  options.dfu.fragment_size = 8192;
  Session s(options);
  s.device->drop_dfu_after(5);
  int fd = test::open_node("/dev/glink_pkt_marlo_dfu");
  ASSERT_GE(fd, 0);

  ASSERT_TRUE(write_packet(fd, make_dfu_message(kSpclOperationReq, {kSpclOpErase, 0x200000u, 65536u})));
  Bytes resp = read_packet(fd);
  ASSERT_EQ(resp.size(), 44u);
  EXPECT_EQ(check_dfu_message(resp), "");
  EXPECT_EQ(get_u32(resp, 20), 0u) << "erase succeeded";

  Bytes start = make_dfu_message(kMgUpdtReq, {1u, 0u, 0u, 0x20474D49u, 0x54445055u});
  ASSERT_TRUE(write_packet(fd, start));
  EXPECT_EQ(get_u32(read_packet(fd), 0), kMgUpdtResp);
  bool corrupted = false;
  int reopened = 0;
  bool ended = false;
  for (int guard = 0; guard < 500 && !ended; ++guard) {
    Bytes request = read_packet(fd);
    if (request.empty()) {  // the co-processor hung up: reopen, ask where it stands
      platform::close(fd);
      fd = test::open_node("/dev/glink_pkt_marlo_dfu");
      ASSERT_GE(fd, 0);
      ++reopened;
      ASSERT_TRUE(write_packet(fd, make_dfu_message(kSpclOperationReq, {kSpclOpGetState, 0u, 0u})));
      Bytes state = read_packet(fd);
      ASSERT_EQ(get_u32(state, 28), kStateOffsetReq);
      EXPECT_EQ(get_u32(state, 36), 5u * 8192u);
      Bytes as_request = make_dfu_message(kImgOffsetReq, {get_u32(state, 32), get_u32(state, 36), get_u32(state, 40)});
      ASSERT_TRUE(answer(fd, as_request, s.shipped));
      continue;
    }
    bool corrupt = !corrupted && get_u32(request, 0) == kImgOffsetReq;
    corrupted = corrupted || corrupt;
    answer(fd, request, s.shipped, corrupt);
    ended = get_u32(request, 0) == kSessionEndReq;
  }
  platform::close(fd);
  marlo::test::wait_until([&] { return s.device->dfu().status().sessions_completed > 0; }, std::chrono::seconds(5));
  DfuStatus status = s.device->dfu().status();
  EXPECT_EQ(status.sessions_completed, 1);
  EXPECT_EQ(status.crc_errors, 1);
  EXPECT_EQ(status.drops, 1);
  EXPECT_EQ(reopened, 1);
  for (const auto& [id, bytes] : s.shipped.images) EXPECT_EQ(s.device->flash().image(id), bytes) << "image " << id;
  Bytes erased = s.device->flash().read_raw(0x200000, 65536);
  EXPECT_EQ(erased, Bytes(65536, 0xFF));
}

Bytes misc_packet(uint32_t kind, uint32_t type, uint32_t len, uint32_t seq, const Bytes& payload = {}) {
  Bytes p;
  for (uint32_t w : {kind, type, len, seq}) append_u32(p, w);
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

TEST(MiscDataChannel, ChecksSizesSequenceAndChecksum) {
  Session s(DeviceOptions{});
  int fd = test::open_node("/dev/glink_pkt_marlo_custom_data");
  ASSERT_GE(fd, 0);
  auto status_of = [&](const Bytes& p) {
    EXPECT_TRUE(write_packet(fd, p));
    Bytes r = read_packet(fd);
    EXPECT_EQ(r.size(), 24u);
    return static_cast<int32_t>(get_u32(r, 16));
  };
  Bytes data(1500);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 3);
  EXPECT_EQ(status_of(misc_packet(0, 1, 1500, 0)), 0);
  EXPECT_EQ(status_of(misc_packet(1, 1, 1100, 1, Bytes(data.begin(), data.begin() + 1100))), -EMSGSIZE);
  EXPECT_EQ(status_of(misc_packet(1, 1, 1000, 2, Bytes(data.begin(), data.begin() + 1000))), -EPROTO);
  EXPECT_EQ(status_of(misc_packet(1, 1, 1000, 1, Bytes(data.begin(), data.begin() + 1000))), 0);
  EXPECT_EQ(status_of(misc_packet(2, 1, 500, 2, Bytes(data.begin() + 1000, data.end()))), 0);
  Bytes bad_crc;
  append_u32(bad_crc, crc32(data.data(), data.size()) ^ 1);
  EXPECT_EQ(status_of(misc_packet(4, 1, 4, 0, bad_crc)), -EBADMSG);

  EXPECT_EQ(status_of(misc_packet(0, 1, 1500, 0)), 0);
  EXPECT_EQ(status_of(misc_packet(2, 1, 1000, 1, Bytes(data.begin(), data.begin() + 1000))), 0);
  EXPECT_EQ(status_of(misc_packet(2, 1, 500, 2, Bytes(data.begin() + 1000, data.end()))), -EPROTO);
  EXPECT_EQ(status_of(misc_packet(0, 1, 1500, 0)), 0);
  EXPECT_EQ(status_of(misc_packet(1, 1, 1000, 1, Bytes(data.begin(), data.begin() + 1000))), 0);
  EXPECT_EQ(status_of(misc_packet(2, 1, 500, 2, Bytes(data.begin() + 1000, data.end()))), 0);
  Bytes crc;
  append_u32(crc, crc32(data.data(), data.size()));
  EXPECT_EQ(status_of(misc_packet(4, 1, 4, 0, crc)), 0);
  EXPECT_TRUE(s.device->misc().status().stored.empty()) << "stored only at finish";
  EXPECT_EQ(status_of(misc_packet(5, 0, 0, 0)), 0);
  EXPECT_EQ(s.device->misc().status().stored.at(1), data);
}

// The host writes, then unloads the co-processor: what it wrote is handled
// first, however slow the co-processor's side is to read it.
TEST(MiscDataChannel, PacketsWrittenBeforeTheHostUnloadsAreHandled) {
  Session s(DeviceOptions{});
  int fd = test::open_node("/dev/glink_pkt_marlo_custom_data");
  ASSERT_GE(fd, 0);
  s.device->misc().set_packet_observer([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    return false;
  });
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(write_packet(fd, misc_packet(0, 1, 1500, 0)));
  EXPECT_EQ(test::control(0xc0205609, kCmdUnload).result, 0);
  EXPECT_EQ(s.device->misc().status().packets, 3);
  EXPECT_FALSE(s.device->coprocessor().running());
  platform::close(fd);
}

}  // namespace
}  // namespace marlo::sim
