// Transport framing and delivery: a marlo_glink reads the fuzz input through
// a real descriptor. The co-processor's end of the channel sends the input
// as packets (each preceded in the input by its length as a little-endian
// 16-bit word; the first input byte picks the channel and so its framing),
// then hangs up. The data callback must see only whole, bounded buffers; the
// transport must reach the hang-up (reported as GLINK_SSR) within the poll
// time-outs, whatever the packets say about their own length.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "fuzz/scratch_root.h"
#include "glink/marlo_glink.h"
#include "sim/device_node.h"
#include "sim/device_root.h"

namespace {

struct Channel {
  const char* name;
  uint32_t read_size;
};
constexpr Channel kChannels[] = {
    {"glink_pkt_marlo_dfu", 44},
    {"glink_pkt_marlo_rma", 40},
    {"glink_pkt_marlo_custom_data", 44},
};

// Hang-up seen by the transport, set from its reader thread.
struct HangUp {
  std::mutex mutex;
  std::condition_variable seen_cv;
  bool seen = false;
};

volatile uint8_t g_sink;

void deliver(const uint8_t* data, uint32_t length) {
  if (data == nullptr || length == 0 || length > marlo_glink::kMaxPacketSize) {
    std::fprintf(stderr, "delivered a buffer of %u bytes at %p\n", length, static_cast<const void*>(data));
    std::abort();
  }
  uint8_t sum = 0;
  for (uint32_t i = 0; i < length; ++i) sum ^= data[i];  // every byte must be readable
  g_sink = sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    marlo::sim::build_device_root(marlo::fuzz::scratch_root(), marlo::sim::RootOptions{});
    return true;
  }();
  (void)ready;
  if (size < 1) return 0;
  const Channel& channel = kChannels[data[0] % 3];

  HangUp hang_up;
  auto node = std::make_unique<marlo::sim::DeviceNode>(marlo::fuzz::scratch_root() + "/dev/" + channel.name);
  auto transport = std::make_unique<marlo_glink>(glink_conn_config{channel.name, channel.read_size});
  transport->register_cb(deliver, [&hang_up](glink_interface_error error) {
    if (error != GLINK_SSR) return;
    std::lock_guard<std::mutex> lock(hang_up.mutex);
    hang_up.seen = true;
    hang_up.seen_cv.notify_all();
  });
  int device_end = -1;
  std::thread accept([&] { device_end = node->accept_open(5000); });
  transport->connect_interface(true);
  accept.join();
  if (device_end < 0) std::abort();
  // No node any more: the transport's reconnection after the hang-up fails
  // at once instead of waiting for an open status.
  node.reset();

  size_t at = 1;
  while (at + 2 <= size) {
    const size_t length = std::min<size_t>(data[at] | (data[at + 1] << 8), size - at - 2);
    at += 2;
    // An empty packet is not sent: a zero-length message reads as a hang-up.
    if (length > 0 && !marlo::sim::send_packet(device_end, data + at, length)) break;
    at += length;
  }
  ::close(device_end);

  std::unique_lock<std::mutex> lock(hang_up.mutex);
  if (!hang_up.seen_cv.wait_for(lock, std::chrono::seconds(10), [&] { return hang_up.seen; })) {
    std::fprintf(stderr, "the transport did not reach the hang-up within 10 s\n");
    std::abort();
  }
  lock.unlock();
  transport.reset();
  return 0;
}
