// The host's platform facts, gathered from sysfs and patched into the
// debug-policy segment of the boot loader's ELF image inside flash.bin.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/read_file.h"

namespace {

constexpr uint32_t kPlatformIdIdp = 0x22;
constexpr uint32_t kPlatformIdWdp = 0x24;
constexpr uint64_t kDebugPolicyVaddr = 0x20147FA4;
constexpr uint32_t kElfMagic = 0x464C457F;  // 0x7F 'E' 'L' 'F', little-endian
constexpr uint8_t kElfClass32 = 1;
constexpr uint8_t kElfClass64 = 2;
constexpr size_t kElfClassOffset = 4;

// Where the fields this patch reads sit in either ELF class.
struct elf_layout {
  size_t header_size;
  size_t phoff_offset;     // low 32 bits of the program header table offset
  size_t phnum_offset;     // 16-bit program header count
  size_t phent_size;       // size of one program header
  size_t p_offset_offset;  // low 32 bits of the segment's file offset
  size_t p_vaddr_offset;
  size_t p_vaddr_size;  // 4 or 8 bytes, compared whole
};
constexpr elf_layout kElf32 = {52, 28, 44, 32, 4, 8, 4};
constexpr elf_layout kElf64 = {64, 32, 56, 56, 8, 16, 8};

constexpr size_t kPlatformInfoWords = 5;
constexpr size_t kPlatformInfoSize = kPlatformInfoWords * sizeof(uint32_t);

// Little-endian field of `size` bytes at `pos`; the caller has checked the range.
uint64_t read_le(const std::vector<uint8_t>& image, size_t pos, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(image[pos + i]) << (8 * i);
  return value;
}

// True when [pos, pos + length) lies inside the image; never overflows.
bool in_image(const std::vector<uint8_t>& image, uint64_t pos, uint64_t length) {
  return pos <= image.size() && length <= image.size() - pos;
}

// A sysfs attribute holds at most a page.
constexpr uint64_t kMaxSysfsText = 4096;

// Copies the first `max` bytes at most of a sysfs text into a zeroed buffer
// and stores how many (0 when the read fails: the defaults then stand).
// False when the file does not open.
bool read_sysfs_text(const char* path, char* buf, size_t max, size_t* length = nullptr) {
  std::string text;
  if (platform::read_file(path, kMaxSysfsText, &text) != platform::read_status::read) return false;
  const size_t n = std::min(text.size(), max);
  std::memcpy(buf, text.data(), n);
  if (length != nullptr) *length = n;
  return true;
}

}  // namespace

platform_info marlo_fw_updater::getPlatformInfo() {
  platform_info info;

  char hw_platform[4] = {};
  if (read_sysfs_text("/sys/devices/soc0/hw_platform", hw_platform, 3)) {
    MARLO_LOGD("HW Platform = %s\n", hw_platform);
    if (std::strncmp(hw_platform, "IDP", 3) == 0)
      info.platform_id = kPlatformIdIdp;
    else if (std::strncmp(hw_platform, "WDP", 3) == 0)
      info.platform_id = kPlatformIdWdp;
  }

  // Two characters: subtype ids 0 to 99.
  char subtype[3] = {};
  if (read_sysfs_text("/sys/devices/soc0/platform_subtype_id", subtype, 2)) {
    MARLO_LOGD("Platform type = %s\n", subtype);
    info.sub_type = static_cast<uint32_t>(std::strtol(subtype, nullptr, 10));
  }

  char dload_mode[25] = {};
  size_t dload_length = 0;
  if (read_sysfs_text("/sys/kernel/dload/dload_mode", dload_mode, 24, &dload_length)) {
    if (dload_length > 0) dload_mode[dload_length - 1] = '\0';  // the newline
    MARLO_LOGD("%s\n", dload_mode);
    if (std::strstr(dload_mode, "full") != nullptr) info.debug_policy = 0;
    const bool mini = std::strstr(dload_mode, "mini") != nullptr;
    if (mini) info.debug_policy = 1;
    MARLO_LOGD("plat_info.debug_policy: %d\n", mini ? 1 : 0);
  }
  return info;
}

void marlo_fw_updater::updatePlatformInfo(std::vector<uint8_t>& image, platform_info info) {
  if (image.empty()) {
    MARLO_LOGE("firmware resource is empty");
    return;
  }
  if (tbx_elf_offset < 0 || !in_image(image, static_cast<uint64_t>(tbx_elf_offset), kElfClassOffset + 1)) {
    MARLO_LOGE("ELF image offset %d outside flash image of %zu bytes, not patched", tbx_elf_offset, image.size());
    return;
  }
  const size_t elf = static_cast<size_t>(tbx_elf_offset);
  if (read_le(image, elf, 4) != kElfMagic) {
    MARLO_LOGE("Unknown File Type");
    return;
  }

  const elf_layout* layout = &kElf32;
  switch (image[elf + kElfClassOffset]) {
    case kElfClass64:
      MARLO_LOGE("ELFCLASS64");
      layout = &kElf64;
      break;
    case kElfClass32: MARLO_LOGE("ELFCLASS32"); break;
    default: MARLO_LOGE("Invalid ELF"); break;
  }
  if (!in_image(image, elf, layout->header_size)) {
    MARLO_LOGE("ELF header past end of flash image (%zu bytes), not patched", image.size());
    return;
  }

  const uint64_t phoff = read_le(image, elf + layout->phoff_offset, 4);
  const uint64_t phnum = read_le(image, elf + layout->phnum_offset, 2);
  if (phnum < 2) return;
  // Both factors are below 2^32, so the table's extent cannot overflow.
  const uint64_t table = elf + phoff;
  if (!in_image(image, table, phnum * layout->phent_size)) {
    MARLO_LOGE("program header table (offset %llu, %llu entries) past end of flash image, not patched",
               static_cast<unsigned long long>(phoff), static_cast<unsigned long long>(phnum));
    return;
  }

  const uint32_t words[kPlatformInfoWords] = {info.debug_policy, info.platform_id, info.major_id, info.minor_id,
                                              info.sub_type};
  // Header 0 is never the debug-policy segment.
  for (uint64_t i = 1; i < phnum; ++i) {
    const size_t entry = static_cast<size_t>(table + i * layout->phent_size);
    if (read_le(image, entry + layout->p_vaddr_offset, layout->p_vaddr_size) != kDebugPolicyVaddr) continue;

    const uint64_t segment_offset = read_le(image, entry + layout->p_offset_offset, 4);
    MARLO_LOGD("BinsToBuf debugPolicy_offset=%x", static_cast<unsigned>(segment_offset));
    const uint64_t block = elf + segment_offset;
    if (!in_image(image, block, kPlatformInfoSize)) {
      MARLO_LOGE("debug policy block at %llu past end of flash image, not patched",
                 static_cast<unsigned long long>(block));
      continue;
    }
    std::memcpy(image.data() + block, words, kPlatformInfoSize);

    uint32_t written[kPlatformInfoWords];
    std::memcpy(written, image.data() + block, kPlatformInfoSize);
    MARLO_LOGD("debug_policy = %x", written[0]);
    MARLO_LOGD("platform_id = %x", written[1]);
    MARLO_LOGD("major_id = %x", written[2]);
    MARLO_LOGD("minor_id = %x", written[3]);
    MARLO_LOGD("sub_type = %x", written[4]);
  }
}
