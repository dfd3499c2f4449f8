#include "bench/large_firmware.h"

#include <filesystem>
#include <stdexcept>

#include "sim/device_root.h"
#include "sim/firmware_manifest.h"

namespace marlo::bench {

namespace {

// Pads flash.bin to `size` bytes with a pattern inserted just before its
// trailing version manifest, which must stay last.
void pad_flash(sim::Bytes& flash, uint32_t size) {
  std::optional<sim::FirmwareManifest> manifest = sim::find_manifest(flash);
  if (!manifest) throw std::runtime_error("sample flash.bin has no manifest");
  const size_t manifest_len = sim::encode_manifest(*manifest).size();
  if (size <= flash.size()) return;
  const size_t extra = size - flash.size();
  sim::Bytes padding(extra);
  uint32_t state = 0x2545F491u;
  for (uint8_t& byte : padding) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<uint8_t>(state);
  }
  flash.insert(flash.end() - static_cast<std::ptrdiff_t>(manifest_len), padding.begin(), padding.end());
}

}  // namespace

LargeRoot make_large_root(uint32_t flash_bytes) {
  LargeRoot made;
  made.root = sim::make_temp_root("marlo-bench");
  sim::build_device_root(made.root, sim::RootOptions{});
  made.set = sim::make_firmware_set(sim::shipped_versions());
  pad_flash(made.set.images.at(sim::kFlashImageId), flash_bytes);
  sim::install_firmware(made.root, made.set);
  for (const auto& entry : made.set.images) made.image_bytes += entry.second.size();
  return made;
}

void remove_root(const std::string& root) {
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
}

}  // namespace marlo::bench
