// The partition table together with the platform-information patch of the
// boot loader's ELF image: the input is the table (XML) and flash.bin.
// Input: the table's length as a little-endian 16-bit word, the table, then
// flash.bin. The loaded flash image must keep the size of the file, and
// every record's size must be that of its data.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/scratch_root.h"
#include "fwupdater/marlo_fw_updater.h"
#include "sim/device_root.h"

namespace {

const std::string kImageDir = "/vendor/firmware_mnt/image/";

[[noreturn]] void broken(const char* what) {
  std::fprintf(stderr, "partition table fuzzer: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static marlo_fw_updater* updater = [] {
    marlo::sim::build_device_root(marlo::fuzz::scratch_root(), marlo::sim::RootOptions{});
    marlo::fuzz::write_file(kImageDir + "partition_1.bin", "partition one image");
    return new marlo_fw_updater;
  }();
  if (size < 2) return 0;
  const size_t xml_length = std::min<size_t>(data[0] | (data[1] << 8), size - 2);
  marlo::fuzz::write_file(kImageDir + "partition_table.xml", data + 2, xml_length);
  const size_t flash_size = size - 2 - xml_length;
  marlo::fuzz::write_file(kImageDir + "flash.bin", data + 2 + xml_length, flash_size);

  updater->truncateFwResources();
  updater->parsePartitionAndSaveFw(std::string(fw_image_dir) + partition_table_file);
  for (const auto& resource : updater->firmwareResources()) {
    if (resource->size != resource->data.size()) broken("record size differs from its data");
    if (resource->image_path == "flash_IMAGE" && resource->data.size() != flash_size) {
      broken("patched flash image changed size");
    }
  }
  updater->checkForFlashbin();
  return 0;
}
