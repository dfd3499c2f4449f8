// DFU messages: a 16-byte header (command id, magic, total length, CRC-32
// of the whole message taken with the CRC field zero) and a payload.
#pragma once

#include <cstdint>
#include <string>

#include "sim/wire.h"

namespace marlo::sim {

constexpr uint32_t kDfuMagic = 0x0A0B0C0D;
constexpr size_t kDfuHeaderSize = 16;

enum DfuId : uint32_t {
  kMgUpdtReq = 1,
  kMgUpdtResp = 2,
  kImgInfoReq = 3,
  kImgInfoResp = 4,
  kImgOffsetReq = 5,
  kImgOffsetResp = 6,
  kCancelUpdtReq = 7,
  kCancelUpdtResp = 8,
  kImgUpdtEndReq = 9,
  kImgUpdtEndResp = 10,
  kSessionEndReq = 11,
  kSessionEndResp = 12,
  kSpclOperationReq = 13,
  kSpclOperationResp = 14,
};

// The co-processor's DFU states as it reports them.
enum DfuState : uint32_t { kStateInit = 0, kStateInfoReq = 1, kStateOffsetReq = 2, kStateSessionEndReq = 3 };

constexpr uint32_t kSpclOpErase = 0;
constexpr uint32_t kSpclOpGetState = 1;

Bytes make_dfu_message(uint32_t id, const Bytes& payload);
// Builds a message from payload words.
Bytes make_dfu_message(uint32_t id, std::initializer_list<uint32_t> words);

// Empty when the header is sound (magic, total length equal to what arrived,
// CRC); otherwise what is wrong with it.
std::string check_dfu_message(const Bytes& message);

std::string dfu_id_name(uint32_t id);

}  // namespace marlo::sim
