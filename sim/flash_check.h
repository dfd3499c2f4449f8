// Checks that the virtual flash holds exactly a shipped firmware set: every
// image byte for byte, except the debug-policy block of flash.bin, which
// must hold the platform words the host patched in; erasable partitions
// erased, the others untouched.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sim/device_root.h"
#include "sim/sample_firmware.h"
#include "sim/virtual_flash.h"

namespace marlo::sim {

// debug_policy, platform_id, major_id, minor_id, sub_type
using PlatformBlock = std::array<uint32_t, 5>;

// The block a host with these sysfs files writes.
PlatformBlock expected_platform_block(const RootOptions& options);

// One line per difference; empty when the flash matches.
std::vector<std::string> verify_flash(const VirtualFlash& flash, const FirmwareSet& shipped,
                                      const PlatformBlock& expected_block);

}  // namespace marlo::sim
