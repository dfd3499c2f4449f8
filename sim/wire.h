// Little-endian words in byte buffers: every message of the virtual device
// is laid out this way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/le32.h"

namespace marlo::sim {

using Bytes = std::vector<uint8_t>;

// The word at `offset`, 0 when the buffer is too short to hold it.
inline uint32_t get_u32(const Bytes& b, size_t offset) { return marlo::le32_at(b, offset); }

inline uint16_t get_u16(const Bytes& b, size_t offset) {
  if (offset + 2 > b.size()) return 0;
  return static_cast<uint16_t>(b[offset] | b[offset + 1] << 8);
}

// Stores the word at `offset`, growing the buffer with zeros when needed.
inline void put_u32(Bytes& b, size_t offset, uint32_t v) {
  if (b.size() < offset + 4) b.resize(offset + 4, 0);
  for (int i = 0; i < 4; ++i) b[offset + i] = static_cast<uint8_t>(v >> (8 * i));
}

inline void put_u16(Bytes& b, size_t offset, uint16_t v) {
  if (b.size() < offset + 2) b.resize(offset + 2, 0);
  b[offset] = static_cast<uint8_t>(v);
  b[offset + 1] = static_cast<uint8_t>(v >> 8);
}

inline void append_u32(Bytes& b, uint32_t v) { put_u32(b, b.size(), v); }

}  // namespace marlo::sim
