// The co-processor's side of the DFU channel (dev/glink_pkt_marlo_dfu). It
// answers erase requests and DFU state queries, and once the host sends
// MG_UPDT_REQ it leads the download: IMG_INFO_REQ per image, IMG_OFFSET_REQ
// per fragment, IMG_UPDT_END_REQ after each image, SESSION_END_REQ at the
// end. Every received CRC is checked; fragments go to the virtual flash,
// which is committed when SESSION_END_RESP arrives. The DFU state survives
// a dropped channel (the host resumes from it) but not a co-processor
// restart.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sim/channel_server.h"
#include "sim/dfu_message.h"
#include "sim/event_log.h"
#include "sim/virtual_flash.h"

namespace marlo::sim {

// One fragment received whole: when its IMG_OFFSET_REQ was about to go out
// and when the answer had been received, before any check of it; both taken
// on the channel's thread.
struct FragmentTiming {
  uint32_t image_id = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
  std::chrono::steady_clock::time_point asked;
  std::chrono::steady_clock::time_point answered;
};

struct DfuConfig {
  std::vector<uint32_t> image_ids{kFlashImageId, kPartition1ImageId};
  uint32_t fragment_size = 4096;
  int write_delay_ms = 0;  // time the flash takes per fragment
  int resend_ms = 2000;    // a request that gets no answer is asked again
  // Measurements: called on the channel's thread for every accepted fragment.
  std::function<void(const FragmentTiming&)> on_fragment;
};

struct DfuStatus {
  uint32_t state = kStateInit;
  uint32_t image_id = 0;
  uint32_t offset = 0;
  uint32_t fragment_len = 0;
  uint32_t image_size = 0;
  uint64_t session_bytes = 0;  // written since the last MG_UPDT_REQ
  int fragments = 0;
  int crc_errors = 0;
  int protocol_errors = 0;
  int stale_answers = 0;
  int resends = 0;
  int state_queries = 0;
  int sessions_started = 0;
  int sessions_completed = 0;
  int drops = 0;
  int missing_images = 0;
  std::vector<std::pair<uint32_t, uint32_t>> erases;  // offset, length
};

class DfuCoprocessor : public ChannelServer {
 public:
  DfuCoprocessor(const std::string& root, VirtualFlash& flash, EventLog& log, DfuConfig config);
  ~DfuCoprocessor() override;

  void set_config(const DfuConfig& config);
  // Fault: hang up the channel after the next `fragments` fragments.
  void drop_after_fragments(int fragments);
  // Fault: hang up the channel after each of the given fragment counts
  // (counted over the device's life, as `DfuStatus::fragments`), so that
  // several cuts land exactly where asked however fast the host runs.
  void drop_at_fragments(std::vector<int> counts);
  // The co-processor restarted: its DFU state is lost.
  void reset_state();
  DfuStatus status() const;

 protected:
  void on_packet(int fd, const Bytes& packet) override;
  void on_tick() override;

 private:
  void handle_special(int fd, const Bytes& m);
  void handle_info_resp(int fd, const Bytes& m);
  void handle_offset_resp(int fd, const Bytes& m);
  void start_image(size_t index);
  void finish_image(int fd);
  // The request that the current state stands for.
  Bytes current_request() const;
  void ask(int fd);
  void reject(int fd, const std::string& problem, bool crc);

  VirtualFlash& flash_;
  EventLog& log_;
  mutable std::mutex mutex_;
  DfuConfig config_;
  DfuStatus status_;
  size_t image_index_ = 0;
  std::vector<int> drop_at_;  // fragment counts still to cut at, ascending
  int consecutive_bad_ = 0;
  bool awaiting_ = false;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::steady_clock::time_point asked_at_;
  std::chrono::steady_clock::time_point received_at_;  // of the packet being handled
};

}  // namespace marlo::sim
