// The capture's bounds under a burst far beyond what its queue holds: the
// ring keeps at most its file count, each file under its size, and every
// message after the oldest kept one is either in the files, in order, or
// counted in a "dropped N messages" record at its place.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "capture/capture_limits.h"
#include "capture/current_file.h"
#include "capture/recorder.h"
#include "common/le32.h"
#include "platform/unique_fd.h"
#include "platform/wire_tap.h"
#include "sim/capture/pcapng_reader.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::capture {
namespace {

using namespace std::chrono_literals;

TEST(CaptureRecorder, BurstKeepsTheRingBoundedAndAccountsForEveryMessage) {
  test::TestRoot root;
  root.mkdir(kDirectory);
  root.set_property(kProperty, "2");
  poll_property();
  ASSERT_TRUE(test::wait_until([] { return !current_file().empty(); }, 60s)) << "switching on makes the file at once";
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const platform::unique_fd read_end(ends[0]), channel(ends[1]);  // stands in for the DFU channel's descriptor
  platform::wire::opened("/dev/glink_pkt_marlo_dfu", channel.get(), 0);
  constexpr uint32_t kMessages = 200;
  std::vector<uint8_t> packet(256 << 10, 0x5a);
  // The first half at once (most of it dropped), the second at a pace the
  // writer keeps up with (25 MiB: the ring turns over).
  for (uint32_t i = 0; i < kMessages; ++i) {
    put_le32(packet.data(), i);
    platform::wire::sent(channel.get(), packet.data(), packet.size());
    if (i >= kMessages / 2) std::this_thread::sleep_for(1ms);
  }
  root.set_property(kProperty, "0");
  poll_property();
  ASSERT_TRUE(test::wait_until([] { return current_file().empty(); }, 60s));

  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(root.at(kDirectory))) names.push_back(e.path().string());
  std::sort(names.begin(), names.end());
  ASSERT_FALSE(names.empty());
  EXPECT_LE(names.size(), static_cast<size_t>(kRingFiles));
  int64_t last = -1;  // the last message seen; -1 before the first
  uint64_t dropped_since = 0;
  for (const std::string& name : names) {
    EXPECT_LE(std::filesystem::file_size(name), kMaxFileBytes) << name;
    sim::CaptureFile file;
    std::string error;
    ASSERT_TRUE(sim::read_capture(name, &file, &error)) << name << ": " << error;
    for (const sim::CapturedPacket& p : file.packets) {
      unsigned long long n = 0;
      if (std::sscanf(p.comment.c_str(), "dropped %llu messages", &n) == 1) dropped_since += n;
      if (p.data.size() != packet.size()) continue;
      const int64_t index = get_le32(p.data.data());
      if (last >= 0) {
        EXPECT_EQ(static_cast<uint64_t>(index - last - 1), dropped_since) << "before message " << index;
      }
      last = index;
      dropped_since = 0;
    }
  }
  EXPECT_EQ(static_cast<uint64_t>(kMessages - 1 - last), dropped_since) << "after the last message";
}

}  // namespace
}  // namespace marlo::capture
