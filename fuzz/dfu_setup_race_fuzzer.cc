// The DFU session's set-up racing the co-processor's requests and the
// session's end. For each input three threads are released together on one
// updater whose transport is kept from the first session:
//   set-up:   startMarloDownloaderWithCallback loads the images again and
//             swaps them in; with plan bit 0 it then starts the erase walk;
//   requests: the input's messages, handed to conn_res_event_cb as the
//             transport's reader thread hands them;
//   end:      once the requests thread has handled the number of messages
//             that plan bits 4-7 name, the session ends from this thread
//             (plan bit 1: sendSessionEndRes, else the list is emptied).
// Input: the plan byte, then messages, each one length byte (clipped to the
// 44 bytes of the longest message) and its bytes.
//
// The partition table names many partitions so that loading takes long
// enough for requests to meet it. Every answer goes to a co-processor end
// that checks its header and CRC.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/discarding_callback.h"
#include "fuzz/packet_sink.h"
#include "fuzz/scratch_root.h"
#include "fwupdater/marlo_fw_updater.h"
#include "sim/device_root.h"
#include "sim/sample_firmware.h"

namespace {

constexpr size_t kLongestMessage = 44;
constexpr size_t kMostMessages = 64;
constexpr int kExtraPartitions = 48;

struct Session {
  marlo::fuzz::DiscardingCallback callback;
  std::unique_ptr<marlo::fuzz::PacketSink> channel;
  marlo_fw_updater updater;
};

Session* session() {
  static Session* s = [] {
    const std::string& root = marlo::fuzz::scratch_root();
    marlo::sim::build_device_root(root, marlo::sim::RootOptions{});
    marlo::sim::FirmwareSet set = marlo::sim::make_firmware_set(marlo::sim::shipped_versions());
    for (int i = 0; i < kExtraPartitions; ++i) {
      set.partitions.push_back({"extra_" + std::to_string(i), 0x300000u + 0x1000u * static_cast<uint32_t>(i), 4096,
                                static_cast<uint32_t>(20 + i), (i % 2) == 0, "marlo_cfg.bin"});
    }
    marlo::sim::install_firmware(root, set);
    auto* created = new Session;
    created->channel =
        std::make_unique<marlo::fuzz::PacketSink>("/dev/glink_pkt_marlo_dfu", marlo::fuzz::check_dfu_packet);
    created->updater.startMarloDownloaderWithCallback(&created->callback);
    return created;
  }();
  return s;
}

// Spins until every one of `count` threads has arrived.
void arrive_and_wait(std::atomic<int>& arrived, int count) {
  arrived.fetch_add(1);
  while (arrived.load() < count) std::this_thread::yield();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  Session* s = session();
  marlo_fw_updater& updater = s->updater;
  const uint8_t plan = data[0];

  std::vector<std::vector<uint8_t>> messages;
  for (size_t at = 1; at < size && messages.size() < kMostMessages;) {
    const size_t length = std::min<size_t>({data[at], kLongestMessage, size - at - 1});
    messages.emplace_back(data + at + 1, data + at + 1 + length);
    at += 1 + length;
  }
  const size_t end_after = std::min<size_t>(plan >> 4, messages.size());

  std::atomic<int> arrived{0};
  std::atomic<size_t> handled{0};
  std::thread setup([&] {
    arrive_and_wait(arrived, 3);
    updater.startMarloDownloaderWithCallback(&s->callback);
    if (plan & 1) updater.eraseAllRAWPartitionAndContinueDownload();
  });
  std::thread requests([&] {
    arrive_and_wait(arrived, 3);
    for (const auto& message : messages) {
      // Exactly the received bytes, so that any read past them is caught.
      updater.conn_res_event_cb(message.data(), static_cast<uint32_t>(message.size()));
      handled.fetch_add(1);
    }
  });
  std::thread end([&] {
    arrive_and_wait(arrived, 3);
    while (handled.load() < end_after) std::this_thread::yield();
    if (plan & 2) {
      updater.sendSessionEndRes();
    } else {
      updater.truncateFwResources();
    }
  });
  setup.join();
  requests.join();
  end.join();
  return 0;
}
