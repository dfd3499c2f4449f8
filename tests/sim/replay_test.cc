// The replay checks what marlod sends: a recording with one byte of a
// daemon message changed fails, naming the message and the field.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "sim/capture/device_capture.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/tools/replay.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

std::string replay(const std::string& capture, int* status, const std::string& images = "", bool prefix = false) {
  ReplayOptions options;
  options.capture = capture;
  options.images = images;
  options.prefix = prefix;
  options.marlod = std::string(MARLO_MARLOD);
  options.silence_timeout_ms = 3000;
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  *status = run_replay(options, out);
  std::fclose(out);
  std::string result(text, size);
  std::free(text);
  return result;
}

TEST(Replay, AChangedByteOfADaemonMessageFailsNamingItsField) {
  const std::string golden = std::string(MARLO_GOLDEN_DIR) + "/noflash_rma.pcapng";
  int status = -1;
  EXPECT_NE(replay(golden, &status).find("messages matched"), std::string::npos);
  EXPECT_EQ(status, 0);

  // The cmd word of the third control request the daemon sent.
  std::ifstream in(golden, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(golden, &capture, &error)) << error;
  int requests = 0;
  std::string request;
  for (const CapturedPacket& p : capture.packets) {
    if (p.interface == 0 && p.flags == 2 && !p.data.empty() && ++requests == 3) {
      request.assign(p.data.begin(), p.data.end());
      break;
    }
  }
  ASSERT_EQ(request.size(), 36u);
  size_t at = bytes.find(request);
  ASSERT_NE(at, std::string::npos);
  bytes[at + 24] ^= 0x40;
  marlo::test::TestRoot root;
  std::string changed = root.path() + "/changed.pcapng";
  std::ofstream(changed, std::ios::binary) << bytes;

  std::string report = replay(changed, &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(report.find("dev/marlo_com_dev frame"), std::string::npos) << report;
  EXPECT_NE(report.find("message 3 of its node: byte 24 (block cmd)"), std::string::npos) << report;
}

// A capture made on a device (no setup, data cut at the "headers" level)
// replays against the device's firmware directories: the cut bytes are
// counted, the bytes kept of a cut message are still compared.
TEST(Replay, DeviceHeadersCaptureReplaysWithItsImages) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path() + "/device");
  const std::string images = root.path() + "/device/vendor", path = root.path() + "/device.pcapng";
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(std::string(MARLO_GOLDEN_DIR) + "/noflash_rma.pcapng", &capture, &error)) << error;
  CaptureFile device = as_device_capture(capture, true);
  size_t cut_out = 0, cut_in = 0;
  for (const CapturedPacket& p : device.packets) (p.flags == 2 ? cut_out : cut_in) += p.original_length - p.data.size();
  ASSERT_GT(cut_out, 0u);
  ASSERT_GT(cut_in, 0u);
  ASSERT_TRUE(write_capture(device, path, &error)) << error;

  int status = -1;
  std::string report = replay(path, &status, images);
  EXPECT_EQ(status, 0) << report;
  EXPECT_NE(report.find(" " + std::to_string(cut_out) + " bytes beyond their captured length"), std::string::npos)
      << report;
  EXPECT_NE(report.find("their " + std::to_string(cut_in) + " missing bytes filled"), std::string::npos) << report;

  auto cut = std::find_if(device.packets.begin(), device.packets.end(), [](const CapturedPacket& p) {
    return p.interface == 2 && p.flags == 2 && p.original_length > p.data.size();
  });
  ASSERT_NE(cut, device.packets.end());
  cut->data[12] ^= 1;  // its sequence word
  ASSERT_TRUE(write_capture(device, path, &error)) << error;
  report = replay(path, &status, images);
  EXPECT_EQ(status, 1);
  EXPECT_NE(report.find("byte 12"), std::string::npos) << report;
}

// A capture that lost messages, or ends inside a block, is refused at the
// first point it cannot be replayed from; --prefix replays what precedes it.
TEST(Replay, UnreplayableCaptureNamesItsFirstPoint) {
  const std::string golden = std::string(MARLO_GOLDEN_DIR) + "/noflash_rma.pcapng";
  marlo::test::TestRoot root;
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(golden, &capture, &error)) << error;
  const size_t records = capture.packets.size(), at = records / 2;
  CapturedPacket dropped = capture.packets[at];
  dropped.data.clear();
  dropped.original_length = 0;
  dropped.comment = "dropped 3 messages";
  capture.packets.insert(capture.packets.begin() + static_cast<long>(at), dropped);
  const std::string lost = root.path() + "/lost.pcapng", short_file = root.path() + "/short.pcapng";
  ASSERT_TRUE(write_capture(capture, lost, &error)) << error;
  std::ifstream in(golden, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::ofstream(short_file, std::ios::binary) << bytes.substr(0, bytes.size() - 8);

  int status = -1;
  std::string report = replay(lost, &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(report.find("not replayable from frame " + std::to_string(at + 1) + " at "), std::string::npos) << report;
  report = replay(lost, &status, "", true);
  EXPECT_EQ(status, 0) << report;
  EXPECT_NE(report.find(std::to_string(at) + " messages matched"), std::string::npos) << report;
  report = replay(short_file, &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(report.find("not replayable after frame " + std::to_string(records - 1)), std::string::npos) << report;
}

}  // namespace
}  // namespace marlo::sim
