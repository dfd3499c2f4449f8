// The misc-data files (Bluetooth firmware and settings) that a flashless
// co-processor takes, loaded whole before they are sent.
#include <cinttypes>
#include <memory>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/read_file.h"

// Ordered by path, so the firmware goes before the settings.
const std::map<std::string, Offload_Type> misc_file_types = {
    {"/vendor/bt_firmware/image/mrbtfw20.mbn", OFFLOAD_BTFW},
    {"/vendor/bt_firmware/image/mrnv20.bin", OFFLOAD_NV},
};

unsigned marlo_fw_updater::loadAndSaveMiscFw() {
  uint32_t index = 0;
  for (const auto& [path, type] : misc_file_types) {
    // The path is used as stored; no directory is put in front of it.
    MARLO_LOGD("readFile Path : %s", path.c_str());
    std::vector<uint8_t> bytes;
    platform::file_info file;
    // Held whole in memory like the images, so under the same cap.
    const platform::read_status result = platform::read_file(path.c_str(), kMaxFwImageSize, &bytes, &file);
    if (result == platform::read_status::not_opened) {
      MARLO_LOGE("File open failed : %s", path.c_str());
      continue;
    }
    if (result == platform::read_status::too_large) {
      MARLO_LOGE("File too large : %s is %" PRIu64 " bytes, the largest file is %" PRIu64 " bytes", path.c_str(),
                 file.size, kMaxFwImageSize);
      continue;
    }

    auto resource = std::make_unique<marlo_misc_resource>();
    resource->index = index;
    resource->type = type;
    resource->path = path;
    resource->data = std::move(bytes);
    resource->size = static_cast<uint32_t>(resource->data.size());
    MARLO_LOGD("marlo_misc_resource : %d", static_cast<int>(resource->size));
    misc_resources.push_back(std::move(resource));
    ++index;
  }
  MARLO_LOGD("Get And Save Misc Fw Done.");
  return 1;
}

int marlo_fw_updater::truncateMiscFwResources() {
  misc_resources.clear();
  return 0;
}
