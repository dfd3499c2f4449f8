// The DFU message dispatch (marlo_fw_updater::conn_res_event_cb) with every
// message the co-processor could send. Input: one selector byte, then the
// message. Messages longer than 44 bytes abort by design, so the message is
// clipped to 44 bytes.
//
// Two updaters serve the sample firmware over a real DFU channel, whose
// co-processor end checks the header and CRC of every answer: selector bit 0
// picks the one that resumes downloads (continue_download set by the erase
// phase) or the one that only reports the DFU state it is told.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/discarding_callback.h"
#include "fuzz/packet_sink.h"
#include "fuzz/scratch_root.h"
#include "fwupdater/marlo_fw_updater.h"
#include "sim/device_root.h"
#include "sim/sample_firmware.h"

namespace {

constexpr size_t kLongestMessage = 44;

struct Session {
  marlo::fuzz::DiscardingCallback callback;
  marlo_fw_updater resuming;
  marlo_fw_updater reporting;
  std::unique_ptr<marlo::fuzz::PacketSink> channel;
};

Session* session() {
  static Session* s = [] {
    const std::string& root = marlo::fuzz::scratch_root();
    marlo::sim::build_device_root(root, marlo::sim::RootOptions{});
    marlo::sim::install_firmware(root, marlo::sim::make_firmware_set(marlo::sim::shipped_versions()));
    auto* created = new Session;
    created->channel =
        std::make_unique<marlo::fuzz::PacketSink>("/dev/glink_pkt_marlo_dfu", marlo::fuzz::check_dfu_packet);
    created->resuming.startMarloDownloaderWithCallback(&created->callback);
    created->resuming.eraseAllRAWPartitionAndContinueDownload();
    created->reporting.startMarloDownloaderWithCallback(&created->callback);
    return created;
  }();
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  Session* s = session();
  marlo_fw_updater& updater = (data[0] & 1) ? s->reporting : s->resuming;
  // A session end empties the images: load them again for the next message.
  if (updater.firmwareResources().empty()) {
    updater.parsePartitionAndSaveFw(std::string(fw_image_dir) + partition_table_file);
  }
  // Exactly the received bytes, so that any read past them is caught.
  const size_t length = std::min(size - 1, kLongestMessage);
  std::vector<uint8_t> message(data + 1, data + 1 + length);
  updater.conn_res_event_cb(message.data(), static_cast<uint32_t>(message.size()));
  return 0;
}
