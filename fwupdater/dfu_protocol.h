// The DFU messages on "glink_pkt_marlo_dfu" as the daemon's DFU session
// reads and builds them: the payload offsets of the received requests, the
// codes of the erase and state-query requests, and the message builders.
// Ids and header layout: common/dfu_wire.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/dfu_wire.h"
#include "common/le32.h"

namespace dfu {

// The most of a received message that is looked at: the header plus the
// largest payload the co-processor sends (DFU_SPCL_OPERATION_RESP's record).
constexpr size_t DFU_RX_BUFFER_SIZE = 44;

// Largest message the channel carries in one packet.
constexpr size_t DFU_MAX_PACKET_SIZE = 1u << 20;

// Payload word offsets of the received requests (from the message start).
constexpr size_t DFU_REQ_IMAGE_ID = 16;
constexpr size_t DFU_REQ_OFFSET = 20;
constexpr size_t DFU_REQ_FRAGMENT_LEN = 24;
constexpr size_t DFU_SPCL_RESP_RECORD = 16;
constexpr size_t DFU_SPCL_RESP_CODE = 20;

// Operations of DFU_SPCL_OPERATION_REQ.
enum dfu_special_operation : uint32_t {
  SPCL_OP_RAW_FLASH_ERASE = 0,
  SPCL_OP_GET_DFU_STATE = 1,
};

using marlo::append_le32;
using marlo::get_le32;
using marlo::put_le32;

// Makes `buffer` an outgoing message: DFU_HEADER_SIZE zero bytes of room for
// the header, ready for the payload to be appended. A buffer kept from one
// answer to the next is reused without an allocation; memory that an
// unusually large message made it take is given back first.
inline void start_message(std::vector<uint8_t>& buffer) {
  constexpr size_t kKeptCapacity = 64 * 1024;
  if (buffer.capacity() > kKeptCapacity) std::vector<uint8_t>().swap(buffer);
  buffer.assign(DFU_HEADER_SIZE, 0);
}

}  // namespace dfu
