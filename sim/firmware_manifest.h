// The version manifest that every flash.bin carries at its end. The
// co-processor reports the versions of the firmware it runs from it, and its
// boot ROM checks through it that the flash holds a complete firmware set.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sim/wire.h"

namespace marlo::sim {

struct FirmwareManifest {
  std::string apps;  // application build
  std::string dsp;
  std::string bt;
  uint32_t kapi = 0;        // major << 24 | minor << 16 | patch
  uint32_t sbl_offset = 0;  // where the boot loader ELF starts in flash.bin
  uint32_t p1_size = 0;     // size and CRC-32 of the matching partition_1.bin
  uint32_t p1_crc = 0;
};

std::string encode_manifest(const FirmwareManifest& manifest);

// The last manifest in `flash_bin`, if it holds a well-formed one.
std::optional<FirmwareManifest> find_manifest(const Bytes& flash_bin);

}  // namespace marlo::sim
