// The version-file parser and the version check. Input: the co-processor's
// 308-byte version record (zero-padded when the input is shorter; its texts
// need not be terminated), then the contents of the shipped version file.
// Every line short enough for the standard library's backtracking search is
// also matched with it, and the version-line matcher must give the same.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <string_view>

#include "comhandler/wear_firmware_info.h"
#include "fuzz/scratch_root.h"
#include "fwupdater/marlo_fw_updater.h"
#include "fwupdater/version_line.h"

namespace {

// Lines up to this length keep the standard search's recursion shallow.
constexpr size_t kComparedLineLength = 256;

void compare_with_standard_search(std::string_view text) {
  static const std::regex expression("\"([^=]*)\": \"([^&]*)&?\"", std::regex::ECMAScript);
  for (size_t begin = 0; begin < text.size();) {
    size_t end = std::min(text.find('\n', begin), text.size());
    const std::string line(text.substr(begin, end - begin));
    begin = end + 1;
    if (line.size() > kComparedLineLength) continue;
    std::smatch match;
    const bool expected = std::regex_search(line, match, expression);
    std::string value;
    if (marlo_fw::version_line_value(line, &value) != expected || (expected && value != match[2].str())) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static marlo_fw_updater* updater = [] {
    marlo::fuzz::scratch_root();
    return new marlo_fw_updater;
  }();
  wear_firmware_info_t record;
  std::memset(&record, 0, sizeof(record));
  const size_t record_bytes = std::min(size, sizeof(record));
  std::memcpy(&record, data, record_bytes);
  marlo::fuzz::write_file("/vendor/firmware_mnt/image/tbx7700_ver_info.txt", data + record_bytes, size - record_bytes);
  compare_with_standard_search(
      std::string_view(reinterpret_cast<const char*>(data) + record_bytes, size - record_bytes));
  updater->fw_version_check(&record);
  updater->is_psram_noflash(&record);
  return 0;
}
