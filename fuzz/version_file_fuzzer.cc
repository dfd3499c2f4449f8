// The version-file parser and the version check. Input: the co-processor's
// 308-byte version record (zero-padded when the input is shorter; its texts
// need not be terminated), then the contents of the shipped version file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "comhandler/wear_firmware_info.h"
#include "fuzz/scratch_root.h"
#include "fwupdater/marlo_fw_updater.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static marlo_fw_updater* updater = [] {
    marlo::fuzz::scratch_root();
    return new marlo_fw_updater;
  }();
  wear_firmware_info_t record;
  std::memset(&record, 0, sizeof(record));
  const size_t record_bytes = std::min(size, sizeof(record));
  std::memcpy(&record, data, record_bytes);
  marlo::fuzz::write_file("/vendor/firmware_mnt/image/tbx7700_ver_info.txt", data + record_bytes,
                          size - record_bytes);
  updater->fw_version_check(&record);
  updater->is_psram_noflash(&record);
  return 0;
}
