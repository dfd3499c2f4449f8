// The misc-data packets on "glink_pkt_marlo_custom_data": a 16-byte header
// of four little-endian words (kind, resource type, payload size, sequence)
// and the payload. The daemon's misc-data transfer and its wire capture both
// read them here.
#pragma once

#include <cstdint>

namespace marlo::misc_data {

// Packet kinds (first header word).
enum shm_packet_kind : uint32_t {
  SHM_PKT_START = 0,
  SHM_PKT_DATA_MORE = 1,
  SHM_PKT_DATA_LAST = 2,
  SHM_PKT_CRC = 4,
  SHM_PKT_FINISH = 5,
};

constexpr uint32_t kShmHeaderSize = 16;

}  // namespace marlo::misc_data
