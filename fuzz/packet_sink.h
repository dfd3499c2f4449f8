// The co-processor's end of one packet channel for a fuzzer: accepts every
// open of the device node and receives every packet the daemon sends, hands
// each to a check (which aborts on a malformed one, so that libFuzzer
// reports the input), and otherwise throws it away.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "sim/device_node.h"

namespace marlo::fuzz {

class PacketSink {
 public:
  using Check = std::function<void(const std::vector<uint8_t>& packet)>;

  // Serves the node at `device_path` below the scratch root.
  PacketSink(const std::string& device_path, Check check);
  ~PacketSink();
  PacketSink(const PacketSink&) = delete;
  PacketSink& operator=(const PacketSink&) = delete;

 private:
  void run();

  sim::DeviceNode node_;
  Check check_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Checks shared by the fuzzers: the 16-byte DFU header and the 12-byte RMA
// header of a packet the daemon sent (length word equal to the packet's
// length, CRC-32 right). Abort when violated.
void check_dfu_packet(const std::vector<uint8_t>& packet);
void check_rma_packet(const std::vector<uint8_t>& packet);

}  // namespace marlo::fuzz
