// The DFU messages on "glink_pkt_marlo_dfu": ids and the 16-byte header.
//
// Every message, in both directions, is one packet: a header of four
// little-endian 32-bit words (command id, magic, total length, CRC-32 of the
// whole message computed with the CRC word zero) followed by the payload.
// The daemon's DFU session and its wire capture both read them here.
#pragma once

#include <cstddef>
#include <cstdint>

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

// IMG_OFFSET_RESP: image id, offset and fragment length before the fragment.
constexpr size_t DFU_OFFSET_RESP_FIXED_PAYLOAD = 12;

}  // namespace dfu
