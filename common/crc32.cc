#include "crc32.h"

#include <array>

namespace marlo {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u;

// kTables[0] is the byte-wise table; kTables[k][i] is the CRC of byte i
// followed by k zero bytes. With them eight bytes are folded in per step
// (slicing by eight): every DFU fragment of 4 KiB is checksummed on the
// request path, and one table look-up per byte made that a good part of the
// time spent answering a request.
using Tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Tables make_tables() {
  Tables tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (kPolynomial ^ (c >> 1)) : (c >> 1);
    tables[0][i] = c;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (uint32_t i = 0; i < 256; ++i) {
      const uint32_t previous = tables[k - 1][i];
      tables[k][i] = (previous >> 8) ^ tables[0][previous & 0xFFu];
    }
  }
  return tables;
}

constexpr Tables kTables = make_tables();

uint32_t load_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

uint32_t crc32(uint32_t crc, const uint8_t* data, size_t length) {
  crc = ~crc;
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    const uint32_t low = crc ^ load_le32(data + i);
    const uint32_t high = load_le32(data + i + 4);
    crc = kTables[7][low & 0xFFu] ^ kTables[6][(low >> 8) & 0xFFu] ^ kTables[5][(low >> 16) & 0xFFu] ^
          kTables[4][low >> 24] ^ kTables[3][high & 0xFFu] ^ kTables[2][(high >> 8) & 0xFFu] ^
          kTables[1][(high >> 16) & 0xFFu] ^ kTables[0][high >> 24];
  }
  for (; i < length; ++i) crc = kTables[0][(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
  return ~crc;
}

}  // namespace marlo
