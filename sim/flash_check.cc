#include "sim/flash_check.h"

#include <cstdlib>
#include <optional>

#include "sim/boot_loader_elf.h"

namespace marlo::sim {

PlatformBlock expected_platform_block(const RootOptions& o) {
  uint32_t policy = o.dload_mode.find("mini") != std::string::npos ? 1 : 0;
  uint32_t platform = o.hw_platform.rfind("WDP", 0) == 0 ? 0x24 : 0x22;
  uint32_t subtype = static_cast<uint32_t>(std::atoi(o.platform_subtype.substr(0, 2).c_str()));
  return {policy, platform, 0xFFFFFFFF, 0xFFFFFFFF, subtype};
}

std::vector<std::string> verify_flash(const VirtualFlash& flash, const FirmwareSet& shipped,
                                      const PlatformBlock& block) {
  std::vector<std::string> problems;
  if (flash.has_partial_images()) problems.push_back("flash holds half-written images");
  const size_t patch_at = shipped.sbl_offset + shipped.debug_policy_offset;
  const size_t patch_end = patch_at + kDebugPolicyWords * 4;
  for (const auto& [id, expected] : shipped.images) {
    std::optional<Bytes> actual = flash.image(id);
    std::string name = "image " + std::to_string(id);
    if (!actual) {
      problems.push_back(name + " is not in flash");
      continue;
    }
    if (actual->size() != expected.size()) {
      problems.push_back(name + " has " + std::to_string(actual->size()) + " bytes, shipped " +
                         std::to_string(expected.size()));
      continue;
    }
    for (size_t i = 0; i < expected.size(); ++i) {
      bool patched = id == kFlashImageId && i >= patch_at && i < patch_end;
      if (!patched && (*actual)[i] != expected[i]) {
        problems.push_back(name + " differs from the shipped image at byte " + std::to_string(i));
        break;
      }
    }
    if (id == kFlashImageId) {
      for (size_t w = 0; w < block.size(); ++w) {
        uint32_t got = get_u32(*actual, patch_at + 4 * w);
        if (got != block[w]) {
          problems.push_back("platform word " + std::to_string(w) + " is " + std::to_string(got) + ", expected " +
                             std::to_string(block[w]));
        }
      }
    }
  }
  for (const PartitionSpec& p : shipped.partitions) {
    Bytes raw = flash.read_raw(p.offset, p.size);
    for (uint32_t i = 0; i < raw.size(); ++i) {
      uint8_t want = p.erasable ? 0xFF : VirtualFlash::factory_pattern(p.offset + i);
      if (raw[i] != want) {
        problems.push_back("partition " + p.name + (p.erasable ? " was not erased" : " was changed"));
        break;
      }
    }
  }
  return problems;
}

}  // namespace marlo::sim
