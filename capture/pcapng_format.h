// The pcapng block and option numbers the capture writers and reader share.
//
// Block layout (every length in bytes, every block padded to 4 bytes):
//   SHB 0x0a0d0d0a: len | magic 0x1a2b3c4d | major 1 | minor 0 | section length -1 | options | len
//   IDB 0x00000001: len | link type u16 | reserved u16 | snaplen u32 | options | len
//   EPB 0x00000006: len | interface u32 | timestamp high u32 | low u32 (µs since the epoch) |
//                   captured length u32 | original length u32 | data, padded | options | len
// Options: code u16 | length u16 | value padded to 4 bytes, ended by opt_endofopt (0, 0).
// A message recorded in part has a captured length below its original one.
#pragma once

#include <cstdint>

namespace marlo::capture::pcapng {

constexpr uint32_t kShbType = 0x0a0d0d0a;
constexpr uint32_t kIdbType = 0x00000001;
constexpr uint32_t kEpbType = 0x00000006;
constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;

}  // namespace marlo::capture::pcapng
