// The device root a replay runs the daemon against.
//
// A host capture carries its setup in the section comment (the sample root,
// its properties, the co-processor running or not). A device capture does
// not: its root is built from the device's firmware directories, copied
// into <root>/vendor/ from `images` (laid out as the device's /vendor:
// firmware_mnt/image/ with the images, partition table and version file,
// firmware_mnt/verinfo/ when the device has it, bt_firmware/image/ with the
// misc-data files), and from what the recorded control requests show:
//   - TWM exit pending when the daemon sent TWM_EXIT before its first
//     GET_BOOT_MODE;
//   - a supported platform subtype when it asked the boot mode at all;
//   - in FLASH mode, "persist.vendor.zt_aon.dfu_update" 1 unless the daemon
//     switched to HOST mode right after asking (what it does when it is not);
//   - the co-processor running at start unless the daemon's first request
//     after that decision is SPI_BUSY (the start of its own LOAD); when it
//     switched to HOST mode, off (a device boots with it off).
// Requests that other threads send meanwhile (GET_BOOT_MODE again,
// BOOT_STATUS) do not count. Everything else is assumed: the sysfs platform
// files of the sample device (hw_platform WDP, dload_mode mini), whose words
// the daemon writes into flash.bin's debug-policy block;
// "ro.vendor.zt_aon_presence" 1; no other property; RMA backing files as the
// daemon creates them, empty.
#pragma once

#include <string>
#include <vector>

#include "sim/capture/pcapng_reader.h"

namespace marlo::sim {

// Builds the root of a host capture at `root` from its setup comment.
void build_root_from_setup(const std::string& root, const std::string& setup);

// Builds the root of a device capture at `root` from `images` and what
// `capture` shows; false with `error` set when `images` holds no firmware.
// `notes` receives one line per derived or assumed fact.
bool build_root_from_images(const std::string& root, const std::string& images, const CaptureFile& capture,
                            std::vector<std::string>* notes, std::string* error);

}  // namespace marlo::sim
