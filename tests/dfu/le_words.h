// Little-endian 32-bit words of the packets the tests exchange with the
// daemon (the host is little-endian).
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace marlo::test {

inline uint32_t word_at(const std::vector<uint8_t>& b, size_t offset) {
  uint32_t v = 0;
  if (offset + 4 <= b.size()) std::memcpy(&v, &b[offset], 4);
  return v;
}

inline void put_word(std::vector<uint8_t>& b, uint32_t v) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
  b.insert(b.end(), p, p + 4);
}

}  // namespace marlo::test
