// The co-processor's side of the misc-data channel
// (dev/glink_pkt_marlo_custom_data): for each resource a start packet, data
// packets in sequence, a CRC packet; one finish packet at the end. Every
// packet gets a 24-byte answer (its header, a status, MAX_PAYLOAD_SIZE).
// Sizes, sequence numbers and the checksum are checked; resources that pass
// are stored when the finish packet arrives (also under sim/misc/).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/channel_server.h"
#include "sim/event_log.h"

namespace marlo::sim {

struct MiscStatus {
  int packets = 0;
  int rejected = 0;
  int finishes = 0;
  std::map<uint16_t, Bytes> stored;  // by resource type, after the last finish
  std::vector<std::string> problems;
};

class MiscDataReceiver : public ChannelServer {
 public:
  static constexpr uint32_t kDefaultMaxPayload = 1024;

  MiscDataReceiver(const std::string& root, EventLog& log, uint32_t max_payload = kDefaultMaxPayload);
  ~MiscDataReceiver() override;

  MiscStatus status() const;

  // Test hook: called on the channel's thread with the number of packets
  // received so far (this one included), before the packet is answered; the
  // packet is answered when it returns true, otherwise its connection hangs
  // up unanswered. Set it before the daemon pushes.
  using PacketHook = std::function<bool(int packets)>;
  void set_packet_hook(PacketHook hook);

 protected:
  void on_open(int fd) override;
  void on_packet(int fd, const Bytes& packet) override;

 private:
  // 0, or the negative errno the answer carries.
  int32_t handle(const Bytes& p);
  int32_t problem(const std::string& text, int32_t status);

  std::string root_;
  EventLog& log_;
  uint32_t max_payload_;
  mutable std::mutex mutex_;
  MiscStatus status_;
  bool started_ = false;
  bool data_complete_ = false;
  uint16_t type_ = 0;
  uint32_t total_ = 0;
  uint32_t next_seq_ = 1;
  Bytes data_;
  std::map<uint16_t, Bytes> verified_;
  PacketHook hook_;  // guarded by mutex_, called outside it
};

}  // namespace marlo::sim
