// The RMA messages on "glink_pkt_marlo_rma": command words and the offsets of
// their fields. Every message starts with a 12-byte header (two words the
// co-processor owns, the command word); the CRC-32 covers the message from
// byte 4 on. The daemon's RMA server and its wire capture both read them here.
#pragma once

#include <cstddef>
#include <cstdint>

namespace marlo::rma {

enum rma_command : uint32_t {
  RMA_CONNECT = 0,
  RMA_CONNECT_RESP = 1,
  RMA_DISCONNECT = 2,
  RMA_DISCONNECT_RESP = 3,
  RMA_DATA_READ = 256,
  RMA_DATA_READ_RESP = 257,
  RMA_DATA_WRITE = 512,
  RMA_DATA_WRITE_RESP = 513,
};

constexpr size_t kHeaderSize = 12;
constexpr size_t kCrcStart = 4;
// Fields, as offsets from the start of the message.
constexpr size_t kCommandOffset = 8;
constexpr size_t kRequestWordOffset = 12;
constexpr size_t kMemoryIdOffset = 16;
constexpr size_t kSecondIdOffset = 20;  // CONNECT; DATA_READ/DATA_WRITE: offset in the file
constexpr size_t kSizeOffset = 24;      // CONNECT: partition size; DATA_*: block size
constexpr size_t kBlockOffset = 32;     // DATA_WRITE's block, and the block of a DATA_READ answer
constexpr size_t kClientPrivOffset = 36;

}  // namespace marlo::rma
