// Little-endian 32-bit words in byte buffers: every message between the
// daemon and the co-processor is laid out this way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace marlo {

inline void put_le32(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value);
  p[1] = static_cast<uint8_t>(value >> 8);
  p[2] = static_cast<uint8_t>(value >> 16);
  p[3] = static_cast<uint8_t>(value >> 24);
}

inline uint32_t get_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

inline void append_le32(std::vector<uint8_t>& out, uint32_t value) {
  uint8_t word[4];
  put_le32(word, value);
  out.insert(out.end(), word, word + 4);
}

// The word at `offset` of a received message; 0 when the message is too
// short to hold it, so that a short message never reads bytes that never
// arrived.
inline uint32_t le32_at(const std::vector<uint8_t>& message, size_t offset) {
  return message.size() >= offset + 4 ? get_le32(message.data() + offset) : 0;
}

}  // namespace marlo
