// A small but real 32-bit little-endian ELF executable standing in for the
// co-processor's secondary boot loader inside flash.bin. Its second program
// header describes the debug-policy segment at virtual address 0x20147FA4,
// the five words that the host patches with its platform information.
#pragma once

#include <cstdint>

#include "sim/wire.h"

namespace marlo::sim {

constexpr uint32_t kDebugPolicyAddress = 0x20147FA4;
constexpr uint32_t kDebugPolicyWords = 5;

struct BootLoaderElf {
  Bytes bytes;
  uint32_t debug_policy_offset = 0;  // file offset of the segment inside `bytes`
};

// Builds the boot loader; `seed` varies the code bytes between builds.
BootLoaderElf build_boot_loader_elf(uint32_t seed);

// File offset (relative to `elf_offset`) of the debug-policy segment of the
// ELF image found at `elf_offset` in `image`, or -1 when there is no 32-bit
// ELF there or no program header after the first one has that address.
long find_debug_policy_segment(const Bytes& image, uint32_t elf_offset);

}  // namespace marlo::sim
