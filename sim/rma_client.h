// The co-processor's side of the RMA channel (dev/glink_pkt_marlo_rma): a
// client workload that, each time the co-processor has come up and the host
// has opened the channel, CONNECTs every partition it keeps on the host,
// writes it block by block, reads every block back and compares, and
// DISCONNECTs. Requests go out on the newest connection; answers are taken
// from any connection and checked (length, CRC, echoed fields, data).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/channel_server.h"
#include "sim/event_log.h"

namespace marlo::sim {

enum RmaCommand : uint32_t {
  kRmaConnect = 0,
  kRmaConnectResp = 1,
  kRmaDisconnect = 2,
  kRmaDisconnectResp = 3,
  kRmaDataRead = 256,
  kRmaDataReadResp = 257,
  kRmaDataWrite = 512,
  kRmaDataWriteResp = 513,
};

struct RmaPartition {
  uint32_t memory_id;
  uint32_t second_id;
  uint32_t size;
};

struct RmaConfig {
  std::vector<RmaPartition> partitions{{7, 1, 8192}, {9, 2, 4096}};
  uint32_t block_size = 1024;
  uint32_t client_priv = 0x00C0FFEE;
  int answer_timeout_ms = 2000;
  // A run that writes nothing: it CONNECTs every partition and reads every
  // block back into RmaStatus::reads, checking only the answers' form (what
  // a host kept across a power loss).
  bool read_only = false;
};

struct RmaStatus {
  int runs_started = 0;
  int runs_completed = 0;  // every block written, read back and matched
  int messages = 0;
  int resends = 0;
  int bad_answers = 0;
  uint32_t last_completed_run = 0;
  std::vector<std::string> problems;
  // DATA_WRITE requests answered well, and the time they waited for their
  // answers (measurements).
  int blocks_written = 0;
  std::chrono::nanoseconds write_wait{0};
  // The same for DATA_READ: the round trip of a request without a sync.
  int blocks_read = 0;
  std::chrono::nanoseconds read_wait{0};
  // Read-only runs: the blocks read, by partition index and offset.
  std::map<std::pair<size_t, uint32_t>, Bytes> reads;
};

// An RMA message: CRC-32 of bytes 4.. | total length | command | payload.
Bytes make_rma_message(uint32_t command, const Bytes& payload);

class RmaClient : public ChannelServer {
 public:
  RmaClient(const std::string& root, EventLog& log, RmaConfig config = {});
  ~RmaClient() override;

  // The co-processor went down (the run in progress is abandoned) or came up
  // (a new run starts once the host has the channel open).
  void on_power(bool up);
  // Fault: call `restart` after `messages` more requests of the workload.
  void restart_after_messages(int messages, std::function<void()> restart);

  RmaStatus status() const;
  // Requests sent beside the workload (ChannelServer::inject) get their
  // answers here, on the channel's thread: an answer `tap` returns true for
  // is taken from the workload's view. Set before the requests go out.
  void set_answer_tap(std::function<bool(const Bytes&)> tap);
  // Backing file name on the host for a partition, below the root.
  static std::string backing_file(const RmaPartition& p);
  // The bytes a completed run leaves in a partition.
  static Bytes run_pattern(uint32_t run, const RmaPartition& p) { return run_pattern(run, p, 0, p.size); }
  // Bytes [offset, offset + length) of the run's pattern, made alone.
  static Bytes run_pattern(uint32_t run, const RmaPartition& p, uint32_t offset, uint32_t length);
  // Empty when every partition's backing file holds what the last completed
  // run wrote; otherwise what differs.
  std::string verify_backing_files() const;

 protected:
  void on_open(int fd) override;
  void on_packet(int fd, const Bytes& packet) override;
  void on_tick() override;

 private:
  struct Step {
    uint32_t command;
    size_t partition;
    uint32_t offset;
  };
  void start_run();
  void send_step();
  std::string check_answer(const Bytes& m, const Step& step) const;
  Bytes request_for(const Step& step) const;

  std::string root_;
  EventLog& log_;
  RmaConfig config_;
  mutable std::mutex mutex_;
  RmaStatus status_;
  bool up_ = false;
  bool pending_ = false;
  uint32_t run_ = 0;
  std::vector<Step> steps_;
  size_t next_ = 0;
  bool awaiting_ = false;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::steady_clock::time_point sent_at_;
  int restart_after_ = 0;
  std::function<void()> restart_;
  std::function<bool(const Bytes&)> tap_;  // guarded by mutex_, called outside it
};

}  // namespace marlo::sim
