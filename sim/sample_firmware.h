// Sample firmware sets made on the spot: the images, partition table and
// version file that a device ships under /vendor/firmware_mnt/image/, for a
// given set of versions.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/firmware_manifest.h"
#include "sim/wire.h"

namespace marlo::sim {

struct FirmwareVersions {
  std::string apps;
  std::string dsp;
  std::string bt;
  uint32_t kapi = 0;
};

// The versions that the sample device ships, and an older set that a
// virtual flash can start with.
FirmwareVersions shipped_versions();
FirmwareVersions older_versions();

// One entry of the partition table.
struct PartitionSpec {
  std::string name;
  uint32_t offset = 0;
  uint32_t size = 0;
  uint32_t img_id = 0;
  bool erasable = false;
  std::string image_file;  // empty: a raw partition without an image
};

// Image ids of the two images that every set has.
constexpr uint32_t kFlashImageId = 1;
constexpr uint32_t kPartition1ImageId = 2;

struct FirmwareSet {
  FirmwareVersions versions;
  uint32_t sbl_offset = 0;           // boot loader ELF inside flash.bin
  uint32_t debug_policy_offset = 0;  // debug-policy segment inside that ELF
  std::vector<PartitionSpec> partitions;
  std::map<uint32_t, Bytes> images;  // by image id, as shipped (flash.bin unpatched)

  // Image ids in the order the co-processor asks for them.
  std::vector<uint32_t> image_ids() const;
  std::string partition_table_xml() const;
  std::string version_file() const;  // tbx7700_ver_info.txt
};

FirmwareSet make_firmware_set(const FirmwareVersions& versions);

// Writes the set under <root>/vendor/firmware_mnt/image/.
void install_firmware(const std::string& root, const FirmwareSet& set);

}  // namespace marlo::sim
