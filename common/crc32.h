// The reflected CRC-32 of IEEE 802.3 (polynomial 0xEDB88320, initial value all
// ones, final complement): the checksum of DFU messages, misc-data packets and
// RMA messages.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marlo {

// Continues a checksum over more bytes: crc32(crc32(0, a), b) == crc32 of a+b.
uint32_t crc32(uint32_t crc, const uint8_t* data, size_t length);

inline uint32_t crc32(const uint8_t* data, size_t length) { return crc32(0, data, length); }

}  // namespace marlo
