#include "sim/sample_firmware.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/crc32.h"
#include "sim/boot_loader_elf.h"

namespace fs = std::filesystem;

namespace marlo::sim {

namespace {

constexpr uint32_t kSblOffset = 0x1000;
constexpr uint32_t kFlashAppSize = 150 * 1024 + 77;
constexpr uint32_t kPartition1Size = 70 * 1024 + 13;
constexpr uint32_t kConfigImageSize = 5000;
constexpr uint32_t kConfigImageId = 3;

uint32_t version_seed(const FirmwareVersions& v) {
  std::string all = v.apps + "|" + v.dsp + "|" + v.bt;
  return crc32(reinterpret_cast<const uint8_t*>(all.data()), all.size());
}

void append_noise(Bytes& out, size_t count, uint32_t seed) {
  uint32_t state = seed ^ 0x9E3779B9u;
  for (size_t i = 0; i < count; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    out.push_back(static_cast<uint8_t>(state));
  }
}

void write_file(const fs::path& path, const void* data, size_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

FirmwareVersions shipped_versions() {
  return {"TBX7700.APPS.2.1-00042-ZENO", "DSP.TBX.3.0.1", "BTFW.MR.20.7.5", (2u << 24) | (1u << 16) | 42};
}

FirmwareVersions older_versions() {
  return {"TBX7700.APPS.2.0-00031-ZENO", "DSP.TBX.2.9.9", "BTFW.MR.20.6.1", (2u << 24) | (0u << 16) | 31};
}

std::vector<uint32_t> FirmwareSet::image_ids() const {
  std::vector<uint32_t> ids;
  for (const auto& entry : images) ids.push_back(entry.first);
  return ids;
}

std::string FirmwareSet::partition_table_xml() const {
  std::ostringstream x;
  x << "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    << "<Marlo_Flash_Layout>\n"
    << "  <mbr>\n    <Partition_1_SBL_Offset>" << sbl_offset << "</Partition_1_SBL_Offset>\n  </mbr>\n"
    << "  <Bank_1>\n    <Partition_table>\n"
    << "      <no_of_partitions>" << partitions.size() << "</no_of_partitions>\n";
  for (const PartitionSpec& p : partitions) {
    x << "      <Partition>\n"
      << "        <Offset>" << p.offset << "</Offset>\n"
      << "        <img_id>" << p.img_id << "</img_id>\n"
      << "        <Partition_Name>" << p.name << "</Partition_Name>\n";
    if (!p.image_file.empty()) x << "        <Image_Path>" << p.image_file << "</Image_Path>\n";
    x << "        <size>" << p.size << "</size>\n"
      << "        <HostSpecificInfo>\n          <PartType>" << (p.erasable ? 1 : 0) << "</PartType>\n"
      << "        </HostSpecificInfo>\n"
      << "      </Partition>\n";
  }
  x << "    </Partition_table>\n  </Bank_1>\n</Marlo_Flash_Layout>\n";
  return x.str();
}

std::string FirmwareSet::version_file() const {
  std::ostringstream x;
  x << "{\n"
    << "    \"Image_Build_IDs\": {\n"
    << "        \"apps_cochip\": \"" << versions.apps << "\",\n"
    << "        \"btfw_cochip\": \"" << versions.bt << "\",\n"
    << "        \"dsp_cochip\": \"" << versions.dsp << "\"\n"
    << "    },\n"
    << "    \"Metabuild_Info\": {\n"
    << "        \"Meta_Build_ID\": \"MARLO.META.1.0\"\n"
    << "    }\n"
    << "}\n";
  return x.str();
}

FirmwareSet make_firmware_set(const FirmwareVersions& versions) {
  FirmwareSet set;
  set.versions = versions;
  set.sbl_offset = kSblOffset;
  uint32_t seed = version_seed(versions);

  // Raw partitions come first: a partition without an image after one with
  // an image would inherit that image in the table's reading rules.
  set.partitions = {
      {"efs_IMAGE", 0x200000, 64 * 1024, 10, true, ""},
      {"log_IMAGE", 0x210000, 32 * 1024, 11, true, ""},
      {"persist_IMAGE", 0x218000, 16 * 1024, 12, false, ""},
      {"cfg_IMAGE", 0x21C000, 8 * 1024, kConfigImageId, false, "marlo_cfg.bin"},
  };

  Bytes partition1;
  append_noise(partition1, kPartition1Size, seed + 2);
  Bytes config;
  append_noise(config, kConfigImageSize, seed + 3);

  BootLoaderElf elf = build_boot_loader_elf(seed);
  set.debug_policy_offset = elf.debug_policy_offset;
  Bytes flash;
  const std::string header = "MARLO FLASH IMAGE v1\n";
  flash.assign(header.begin(), header.end());
  flash.resize(kSblOffset, 0xFF);
  flash.insert(flash.end(), elf.bytes.begin(), elf.bytes.end());
  append_noise(flash, kFlashAppSize, seed + 1);
  FirmwareManifest manifest{versions.apps,
                            versions.dsp,
                            versions.bt,
                            versions.kapi,
                            kSblOffset,
                            static_cast<uint32_t>(partition1.size()),
                            crc32(partition1.data(), partition1.size())};
  std::string text = encode_manifest(manifest);
  flash.insert(flash.end(), text.begin(), text.end());

  set.images[kFlashImageId] = std::move(flash);
  set.images[kPartition1ImageId] = std::move(partition1);
  set.images[kConfigImageId] = std::move(config);
  return set;
}

void install_firmware(const std::string& root, const FirmwareSet& set) {
  fs::path dir = fs::path(root) / "vendor/firmware_mnt/image";
  std::string xml = set.partition_table_xml();
  write_file(dir / "partition_table.xml", xml.data(), xml.size());
  std::string ver = set.version_file();
  write_file(dir / "tbx7700_ver_info.txt", ver.data(), ver.size());
  for (const auto& [id, bytes] : set.images) {
    std::string name;
    if (id == kFlashImageId) {
      name = "flash.bin";
    } else if (id == kPartition1ImageId) {
      name = "partition_1.bin";
    } else {
      for (const PartitionSpec& p : set.partitions) {
        if (p.img_id == id) name = p.image_file;
      }
    }
    if (!name.empty()) write_file(dir / name, bytes.data(), bytes.size());
  }
}

}  // namespace marlo::sim
