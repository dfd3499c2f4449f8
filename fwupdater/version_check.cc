// Compares the firmware that the co-processor runs with the versions shipped
// on the device, and tells the flashless PSRAM variant apart.

#include <cstring>
#include <fstream>
#include <regex>
#include <string>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/os.h"

namespace {

const std::string marlo_meta_file = "/vendor/firmware_mnt/image/tbx7700_ver_info.txt";
const std::string marlo_meta_fallback_file = "/vendor/firmware_mnt/verinfo/ver_info.txt";
const std::string apps_cochip_key = "apps_cochip";
const std::string btfw_cochip_key = "btfw_cochip";

// A quoted key, colon, blank and quoted value; the value is the second group.
// An ampersand may close the value and is not part of it.
const char* const kMetaLineExpression = "\"([^=]*)\": \"([^&]*)&?\"";

// Lines of a version file are short; the backtracking search is not run on
// longer ones, whose cost and stack use would grow with their length.
constexpr size_t kMaxMetaLineLength = 4096;

// The text of a version field of the co-processor's record, which need not
// be terminated within its field.
template <size_t N>
std::string record_text(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace

marlo_meta_info marlo_fw_updater::readMarloMetaBuildInfo() {
  marlo_meta_info meta;
  const std::regex expression(kMetaLineExpression, std::regex::ECMAScript);

  // The fallback file is read only when the primary cannot be opened.
  std::string file_path = marlo_meta_file;
  std::ifstream file(platform::path(file_path));
  if (!file.is_open()) {
    file_path = marlo_meta_fallback_file;
    file.open(platform::path(file_path));
    if (!file.is_open()) return meta;
  }
  MARLO_LOGD("aon build from %s.\n", file_path.c_str());

  const std::pair<const char*, std::string*> keys[] = {
      {apps_cochip_key.c_str(), &meta.apps_cochip},
      {btfw_cochip_key.c_str(), &meta.btfw_cochip},
      {"dsp_cochip", &meta.dsp_cochip},
  };

  std::string line;
  while (std::getline(file, line)) {
    for (const auto& [key, field] : keys) {
      if (line.find(key) == std::string::npos) continue;
      if (line.size() > kMaxMetaLineLength) {
        MARLO_LOGE("version line of %zu bytes skipped", line.size());
        break;
      }
      std::smatch match;
      try {
        if (!std::regex_search(line, match, expression)) continue;
      } catch (const std::regex_error& error) {
        MARLO_LOGE("version line not parsed: %s", error.what());
        break;
      }
      *field = match.size() >= 3 ? match[2].str() : std::string();
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
