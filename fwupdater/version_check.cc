// Compares the firmware that the co-processor runs with the versions shipped
// on the device, and tells the flashless PSRAM variant apart.

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "fwupdater/version_line.h"
#include "platform/read_file.h"

namespace {

const std::string marlo_meta_file = "/vendor/firmware_mnt/image/tbx7700_ver_info.txt";
const std::string marlo_meta_fallback_file = "/vendor/firmware_mnt/verinfo/ver_info.txt";
const std::string apps_cochip_key = "apps_cochip";
const std::string btfw_cochip_key = "btfw_cochip";

// A version file is a few lines of text; a larger one is not read at all
// and counts as a file that does not open, so that memory stays bounded.
constexpr uint64_t kMaxVersionFileSize = 1u << 20;

// The whole text of a version file, or nothing when it does not open or is
// larger than the limit (logged with its size).
std::optional<std::string> read_version_file(const std::string& file_path) {
  std::string text;
  platform::file_info file;
  switch (platform::read_file(file_path.c_str(), kMaxVersionFileSize, &text, &file)) {
    case platform::read_status::read: return text;
    case platform::read_status::not_opened: return std::nullopt;
    case platform::read_status::too_large:
      MARLO_LOGE("version file %s of %llu bytes is above the limit of %llu bytes, not read", file_path.c_str(),
                 static_cast<unsigned long long>(file.size), static_cast<unsigned long long>(kMaxVersionFileSize));
      return std::nullopt;
  }
  return std::nullopt;
}

// The text of a version field of the co-processor's record, which need not
// be terminated within its field.
template <size_t N>
std::string record_text(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace

marlo_meta_info marlo_fw_updater::readMarloMetaBuildInfo() {
  marlo_meta_info meta;

  // The fallback file is read only when the primary cannot be read.
  std::string file_path = marlo_meta_file;
  std::optional<std::string> text = read_version_file(file_path);
  if (!text) {
    file_path = marlo_meta_fallback_file;
    text = read_version_file(file_path);
    if (!text) return meta;
  }
  MARLO_LOGD("aon build from %s.\n", file_path.c_str());

  const std::pair<const char*, std::string*> keys[] = {
      {apps_cochip_key.c_str(), &meta.apps_cochip},
      {btfw_cochip_key.c_str(), &meta.btfw_cochip},
      {"dsp_cochip", &meta.dsp_cochip},
  };

  const std::string_view all(*text);
  for (size_t begin = 0; begin < all.size();) {
    size_t end = all.find('\n', begin);
    if (end == std::string_view::npos) end = all.size();
    const std::string_view line = all.substr(begin, end - begin);
    begin = end + 1;

    // One line gives one value, assigned to every key that it names.
    std::optional<std::string> value;
    bool searched = false;
    for (const auto& [key, field] : keys) {
      if (line.find(key) == std::string_view::npos) continue;
      if (!searched) {
        std::string found;
        if (marlo_fw::version_line_value(line, &found)) value = std::move(found);
        searched = true;
      }
      if (value) *field = *value;
    }
  }
  return meta;
}

int32_t marlo_fw_updater::fw_version_check(wear_firmware_info_t* fw_info) {
  const marlo_meta_info shipped = readMarloMetaBuildInfo();
  if (fw_info == nullptr) {
    MARLO_LOGE("fw_info: version is invalid");
    return -1;
  }

  // The device's text is the haystack, the shipped value the needle. The
  // build number is always tested; bluetooth and DSP only when reported.
  const std::string apps = record_text(fw_info->apps_version);
  if (apps.find(shipped.apps_cochip) == std::string::npos) {
    MARLO_LOGE("crm_build_number MIS-MATHCHED");
    return -1;
  }
  const std::string bt = record_text(fw_info->bt_version);
  if (!bt.empty() && bt.find(shipped.btfw_cochip) == std::string::npos) {
    MARLO_LOGE("btfw_cochip MIS-MATHCHED");
    return -1;
  }
  const std::string dsp = record_text(fw_info->dsp_version);
  if (!dsp.empty() && dsp.find(shipped.dsp_cochip) == std::string::npos) {
    MARLO_LOGE("dsp_cochip MIS-MATHCHED");
    return -1;
  }
  // Error priority so that the decision shows at the lowest log level.
  MARLO_LOGE("Marlo firmware versions are MATHCHED, skip fw_update");
  return 0;
}

int32_t marlo_fw_updater::is_psram_noflash(wear_firmware_info_t* fw_info) {
  if (fw_info == nullptr) {
    MARLO_LOGE("fw_info: version is invalid");
    return -1;
  }
  if (record_text(fw_info->apps_version).find("NOFLASH_PSRAM") != std::string::npos) {
    MARLO_LOGD("Found NOFLASH_PSRAM variant");
    return 0;
  }
  MARLO_LOGD("Not a NOFLASH_PSRAM variant");
  return -1;
}
