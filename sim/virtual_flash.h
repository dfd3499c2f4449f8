// The co-processor's flash, kept in the device root under sim/flash/:
// one file per firmware image slot (image_<id>.bin once committed,
// image_<id>.partial while a download writes it) and raw.bin, the raw
// partition area that erase requests address by offset.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "sim/firmware_manifest.h"
#include "sim/sample_firmware.h"
#include "sim/wire.h"

namespace marlo::sim {

class VirtualFlash {
 public:
  static constexpr uint32_t kRawSize = 4u << 20;
  static constexpr uint32_t kMaxImageSize = 64u << 20;

  explicit VirtualFlash(std::string dir);

  const std::string& dir() const { return dir_; }

  // Factory programming: stores a complete firmware set, and fills every
  // partition of its table in the raw area with a recognisable pattern.
  void program(const FirmwareSet& set);

  // Starting a download of an image destroys the committed copy.
  bool begin_image(uint32_t id, uint32_t size);
  bool write(uint32_t id, uint32_t offset, const uint8_t* data, size_t length);
  // Session end: every image being written becomes the committed one.
  void commit();

  std::optional<Bytes> image(uint32_t id) const;  // committed image
  bool has_partial_images() const;

  bool erase(uint32_t offset, uint32_t length);
  Bytes read_raw(uint32_t offset, uint32_t length) const;

  // The manifest of a bootable firmware set: flash.bin and partition_1.bin
  // committed, the boot loader ELF where the manifest says, partition_1.bin
  // of the size and checksum the manifest names.
  std::optional<FirmwareManifest> bootable_manifest() const;

  static uint8_t factory_pattern(uint32_t offset) { return static_cast<uint8_t>(0xA5 ^ (offset >> 4)); }

 private:
  std::string slot(uint32_t id, bool partial) const;
  std::string raw_path() const;

  std::string dir_;
  mutable std::mutex mutex_;
};

}  // namespace marlo::sim
