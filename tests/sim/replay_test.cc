// The replay checks what marlod sends: a recording with one byte of a
// daemon message changed fails, naming the byte, and a recording that lost
// messages is refused where it lost them. (The golden captures replay as
// they are in the replay_golden_* tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "sim/capture/device_capture.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/tools/replay.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

std::string replay(const std::string& capture, int* status, const std::string& images, bool prefix = false) {
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

// A capture made on a device (no setup, data cut at the "headers" level)
// replays against the device's firmware directories: the bytes kept of a cut
// message are still compared. A capture that lost messages is refused at the
// first lost one, by frame; --prefix replays what came before it.
TEST(Replay, DeviceCaptureIsComparedByteByByteAndALossIsRefusedWhereItHappened) {
  marlo::test::TestRoot root;
  VirtualDevice::build_sample_root(root.path() + "/device");
  const std::string images = root.path() + "/device/vendor", path = root.path() + "/device.pcapng";
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(std::string(MARLO_GOLDEN_DIR) + "/noflash_rma.pcapng", &capture, &error)) << error;
  CaptureFile device = as_device_capture(capture, true);
  ASSERT_TRUE(write_capture(device, path, &error)) << error;

  int status = -1;
  std::string report = replay(path, &status, images);
  EXPECT_EQ(status, 0) << report;
  EXPECT_NE(report.find("bytes beyond their captured length not compared"), std::string::npos) << report;

  auto cut = std::find_if(device.packets.begin(), device.packets.end(), [](const CapturedPacket& p) {
    return p.interface == 2 && p.flags == 2 && p.original_length > p.data.size();
  });
  ASSERT_NE(cut, device.packets.end());
  cut->data[12] ^= 1;  // its sequence word
  ASSERT_TRUE(write_capture(device, path, &error)) << error;
  report = replay(path, &status, images);
  EXPECT_EQ(status, 1);
  EXPECT_NE(report.find("byte 12"), std::string::npos) << report;

  const size_t at = capture.packets.size() / 2;
  CapturedPacket dropped = capture.packets[at];
  dropped.data.clear();
  dropped.original_length = 0;
  dropped.comment = "dropped 3 messages";
  capture.packets.insert(capture.packets.begin() + static_cast<long>(at), dropped);
  ASSERT_TRUE(write_capture(capture, path, &error)) << error;
  report = replay(path, &status, "");
  EXPECT_EQ(status, 2);
  EXPECT_NE(report.find("not replayable from frame " + std::to_string(at + 1) + " at "), std::string::npos) << report;
  report = replay(path, &status, "", true);
  EXPECT_EQ(status, 0) << report;
}

}  // namespace
}  // namespace marlo::sim
