#include "sim/boot_loader_elf.h"

namespace marlo::sim {

namespace {

constexpr uint32_t kEhdrSize = 52;
constexpr uint32_t kPhdrSize = 32;
constexpr uint32_t kPtLoad = 1;
constexpr uint32_t kFlagX = 1, kFlagW = 2, kFlagR = 4;

struct Segment {
  uint32_t vaddr;
  uint32_t size;
  uint32_t flags;
};

void put_u16_at(Bytes& b, size_t off, uint16_t v) { put_u16(b, off, v); }

}  // namespace

BootLoaderElf build_boot_loader_elf(uint32_t seed) {
  const Segment segments[] = {
      {0x20100000, 0x0C00, kFlagR | kFlagX},                          // code
      {kDebugPolicyAddress, kDebugPolicyWords * 4, kFlagR | kFlagW},  // debug policy block
      {0x20148000, 0x0180, kFlagR | kFlagW},                          // data
  };
  const uint16_t count = sizeof(segments) / sizeof(segments[0]);

  BootLoaderElf elf;
  Bytes& b = elf.bytes;
  b.assign(kEhdrSize, 0);
  b[0] = 0x7F;
  b[1] = 'E';
  b[2] = 'L';
  b[3] = 'F';
  b[4] = 1;                           // 32-bit
  b[5] = 1;                           // little-endian
  b[6] = 1;                           // current version
  put_u16_at(b, 16, 2);               // executable
  put_u16_at(b, 18, 40);              // ARM
  put_u32(b, 20, 1);                  // version
  put_u32(b, 24, segments[0].vaddr);  // entry point
  put_u32(b, 28, kEhdrSize);          // program headers follow the header
  put_u32(b, 32, 0);                  // no section headers
  put_u32(b, 36, 0x05000400);         // EABI5, hard float
  put_u16_at(b, 40, kEhdrSize);
  put_u16_at(b, 42, kPhdrSize);
  put_u16_at(b, 44, count);
  put_u16_at(b, 46, 40);
  put_u16_at(b, 48, 0);
  put_u16_at(b, 50, 0);

  uint32_t data_offset = kEhdrSize + kPhdrSize * count;
  data_offset = (data_offset + 15) & ~15u;
  Bytes headers;
  uint32_t offset = data_offset;
  for (const Segment& s : segments) {
    size_t at = headers.size();
    put_u32(headers, at + 0, kPtLoad);
    put_u32(headers, at + 4, offset);
    put_u32(headers, at + 8, s.vaddr);
    put_u32(headers, at + 12, s.vaddr);
    put_u32(headers, at + 16, s.size);
    put_u32(headers, at + 20, s.size);
    put_u32(headers, at + 24, s.flags);
    put_u32(headers, at + 28, 4);
    if (s.vaddr == kDebugPolicyAddress) elf.debug_policy_offset = offset;
    offset += (s.size + 15) & ~15u;
  }
  b.insert(b.end(), headers.begin(), headers.end());
  b.resize(offset, 0);

  // Segment contents: code and data get seed-dependent bytes; the debug
  // policy block ships as zeros and is filled in by the host.
  uint32_t state = seed * 2654435761u + 12345u;
  uint32_t at = data_offset;
  for (const Segment& s : segments) {
    if (s.vaddr != kDebugPolicyAddress) {
      for (uint32_t i = 0; i < s.size; ++i) {
        state = state * 1103515245u + 12345u;
        b[at + i] = static_cast<uint8_t>(state >> 16);
      }
    }
    at += (s.size + 15) & ~15u;
  }
  return elf;
}

long find_debug_policy_segment(const Bytes& image, uint32_t elf_offset) {
  if (static_cast<uint64_t>(elf_offset) + kEhdrSize > image.size()) return -1;
  if (get_u32(image, elf_offset) != 0x464C457F || image[elf_offset + 4] != 1) return -1;
  uint32_t phoff = get_u32(image, elf_offset + 28);
  uint16_t count = get_u16(image, elf_offset + 44);
  for (uint16_t i = 1; i < count; ++i) {
    uint64_t entry = static_cast<uint64_t>(elf_offset) + phoff + static_cast<uint64_t>(i) * kPhdrSize;
    if (entry + kPhdrSize > image.size()) return -1;
    if (get_u32(image, entry + 8) == kDebugPolicyAddress) return get_u32(image, entry + 4);
  }
  return -1;
}

}  // namespace marlo::sim
