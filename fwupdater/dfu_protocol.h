// The DFU messages on "glink_pkt_marlo_dfu": ids, the 16-byte header, the
// codes of the erase and state-query requests.
//
// Every message, in both directions, is one packet: a header of four
// little-endian 32-bit words (command id, magic, total length, CRC-32 of the
// whole message computed with the CRC word zero) followed by the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/le32.h"

namespace dfu {

// Message ids. Kept in their own namespace: the DFU states of the co-processor
// (INIT, INFO_REQ, ..., SESSION_END_REQ) live unscoped in the global one.
enum dfu_command_id : uint32_t {
  MG_UPDT_REQ = 1,
  MG_UPDT_RESP = 2,
  IMG_INFO_REQ = 3,
  IMG_INFO_RESP = 4,
  IMG_OFFSET_REQ = 5,
  IMG_OFFSET_RESP = 6,
  CANCEL_UPDT_REQ = 7,
  CANCEL_UPDT_RESP = 8,
  IMG_UPDT_END_REQ = 9,
  IMG_UPDT_END_RESP = 10,
  SESSION_END_REQ = 11,
  SESSION_END_RESP = 12,
  DFU_SPCL_OPERATION_REQ = 13,
  DFU_SPCL_OPERATION_RESP = 14,
};

constexpr uint32_t DFU_MAGIC = 0x0A0B0C0D;

// Header word offsets.
constexpr size_t DFU_HDR_COMMAND_ID = 0;
constexpr size_t DFU_HDR_MAGIC = 4;
constexpr size_t DFU_HDR_TOTAL_LENGTH = 8;
constexpr size_t DFU_HDR_CRC = 12;
constexpr size_t DFU_HEADER_SIZE = 16;

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

// IMG_OFFSET_RESP: image id, offset and fragment length before the fragment.
constexpr size_t DFU_OFFSET_RESP_FIXED_PAYLOAD = 12;

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
