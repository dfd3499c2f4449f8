// Device roots whose shipped flash.bin has a chosen size, so that a download
// moves that much data; the rest of the firmware set is the sample one.
#pragma once

#include <cstdint>
#include <string>

#include "sim/sample_firmware.h"

namespace marlo::bench {

// A fresh root holding the sample device with a flash.bin of `flash_bytes`
// (the sample's own contents, padded before its version manifest).
struct LargeRoot {
  std::string root;
  sim::FirmwareSet set;
  uint64_t image_bytes = 0;  // every image the daemon loads, together
};

LargeRoot make_large_root(uint32_t flash_bytes);

void remove_root(const std::string& root);

}  // namespace marlo::bench
