// The images the DFU session serves: the partitions of the partition table
// and the two fixed images, each read whole from the image directory.
//
// A list is built completely before it is published, and a published list
// is never changed: the reader thread may serve a request at any moment.
#include <tinyxml2.h>

#include <cinttypes>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/read_file.h"

namespace {

constexpr int32_t kFlashImageId = 1;
constexpr int32_t kPartitionImageId = 2;

// The partition table is a few KiB of XML, held twice while it is parsed; a
// larger file is not read at all and counts as one that does not load.
constexpr uint64_t kMaxPartitionTableSize = 1u << 20;

// The values a "Partition" element takes over from the one before it: a
// child that is absent leaves the previous partition's value in place.
struct partition_working_values {
  int32_t offset = 0;
  int32_t img_id = 0;
  int32_t xml_size = 0;
  const char* image_path = nullptr;  // owned by the document; null: none seen yet
  std::string partition_name;
};

// The image files read while one list is built, by identity: a table may
// name the same file in many elements, or under several spellings of its
// path ("big.bin", "./big.bin", "/big.bin"); it is read once and its bytes
// are shared, so memory grows with the distinct files, not the elements.
class image_cache {
 public:
  // The bytes of the file at `image_path` (under the image directory).
  marlo_image_data read(marlo_fw_updater& updater, const std::string& image_path) {
    platform::file_info identity;
    if (platform::file_identity((std::string(fw_image_dir) + image_path).c_str(), &identity)) {
      for (const auto& [file, bytes] : files_) {
        if (platform::same_file(file, identity)) return bytes;
      }
    }
    platform::file_info read_info;
    auto bytes = std::make_shared<const std::vector<uint8_t>>(updater.readFile(image_path, &read_info));
    marlo_image_data data(std::move(bytes));
    // Keyed by the file actually read; one that could not be read is not kept.
    if (read_info.device != 0 || read_info.inode != 0) files_.emplace_back(read_info, data);
    return data;
  }

 private:
  std::vector<std::pair<platform::file_info, marlo_image_data>> files_;
};

}  // namespace

unsigned marlo_fw_updater::parsePartitionAndSaveFw(const std::string& path) {
  auto list = std::make_shared<fw_resource_list>(*fwResourcesSnapshot());
  const unsigned result = loadFwResources(path, list.get());
  publishFwResources(std::move(list));
  return result;
}

unsigned marlo_fw_updater::loadFwResources(const std::string& path, fw_resource_list* list) {
  image_cache images;
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  std::string table;
  platform::file_info table_file;
  const platform::read_status table_read =
      platform::read_file(path.c_str(), kMaxPartitionTableSize, &table, &table_file);
  if (table_read == platform::read_status::too_large) {
    MARLO_LOGE("partition table %s of %" PRIu64 " bytes is above the limit of %" PRIu64 " bytes, not read",
               path.c_str(), table_file.size, kMaxPartitionTableSize);
  }
  // An empty text does not parse, as an empty file does not load.
  if (table_read != platform::read_status::read || doc.Parse(table.data(), table.size()) != tinyxml2::XML_SUCCESS) {
    MARLO_LOGE("XML Config File Not Opened");
    return 0;
  }
  MARLO_LOGD("XML Config File Opened");

  tinyxml2::XMLElement* root = doc.FirstChildElement();
  if (root != nullptr) {
    MARLO_LOGD("rootElement Not NULL");

    tinyxml2::XMLElement* mbr = root->FirstChildElement("mbr");
    if (mbr != nullptr) {
      MARLO_LOGD("mbr_Element is Not NULL");
      tinyxml2::XMLElement* sbl_offset = mbr->FirstChildElement("Partition_1_SBL_Offset");
      if (sbl_offset != nullptr) {
        MARLO_LOGD("PartitionSBLOffsetElement is Not NULL");
        tbx_elf_offset = sbl_offset->IntText(0);
        MARLO_LOGD("tbx_elf_offset : %d", tbx_elf_offset);
      }
    }

    tinyxml2::XMLElement* bank = root->FirstChildElement("Bank_1");
    if (bank == nullptr) {
      MARLO_LOGD("bank_1_node is NULL");
      return 0;
    }

    tinyxml2::XMLElement* table = bank->FirstChildElement("Partition_table");
    if (table != nullptr) {
      MARLO_LOGD("partitionTableElement Not NULL");
      tinyxml2::XMLElement* count = table->FirstChildElement("no_of_partitions");
      if (count != nullptr) {
        const char* text = count->GetText();
        MARLO_LOGD("no_of_partitions : %s", text != nullptr ? text : "");
      }

      partition_working_values working;
      for (tinyxml2::XMLElement* partition = table->FirstChildElement("Partition"); partition != nullptr;
           partition = partition->NextSiblingElement("Partition")) {
        if (tinyxml2::XMLElement* e = partition->FirstChildElement("Offset")) {
          working.offset = e->IntText(0);
          MARLO_LOGD("Offset : %d", working.offset);
        }
        if (tinyxml2::XMLElement* e = partition->FirstChildElement("img_id")) {
          working.img_id = e->IntText(0);
          MARLO_LOGD("Img ID : %d", working.img_id);
        }
        if (tinyxml2::XMLElement* e = partition->FirstChildElement("Partition_Name")) {
          const char* text = e->GetText();
          working.partition_name = text != nullptr ? text : "";
          MARLO_LOGD("partition Name : %s", working.partition_name.c_str());
        }
        if (tinyxml2::XMLElement* e = partition->FirstChildElement("Image_Path")) {
          working.image_path = e->GetText();
          MARLO_LOGD("Img Path : %s", working.image_path != nullptr ? working.image_path : "");
        }
        if (tinyxml2::XMLElement* e = partition->FirstChildElement("size")) {
          working.xml_size = e->IntText(0);
          MARLO_LOGD("Img Size from xml: %d", working.xml_size);
        }
        bool erasable = false;
        if (tinyxml2::XMLElement* info = partition->FirstChildElement("HostSpecificInfo")) {
          if (tinyxml2::XMLElement* part_type = info->FirstChildElement("PartType")) {
            const int value = part_type->IntText(0);
            MARLO_LOGD("isErasable from xml: %d", value);
            erasable = value != 0;
          }
        }

        auto resource = std::make_unique<marlo_fw_resource>();
        resource->img_id = working.img_id;
        resource->offset = working.offset;
        resource->partition_name = working.partition_name;
        resource->xml_size = working.xml_size;
        resource->isErasable = erasable;
        if (working.image_path != nullptr && working.image_path[0] != '\0') {
          resource->image_path = working.image_path;
          resource->data = images.read(*this, resource->image_path);
          resource->size = static_cast<uint32_t>(resource->data.size());
          MARLO_LOGD("firmware %s resource Size : %d", resource->partition_name.c_str(),
                     static_cast<int>(resource->size));
        }
        list->push_back(std::move(resource));
      }
    }
  }

  // The flash image carries the host's platform facts for the boot loader:
  // its patched bytes are its own, never shared.
  auto flash = std::make_unique<marlo_fw_resource>();
  flash->img_id = kFlashImageId;
  flash->partition_name = "flash_IMAGE";
  flash->image_path = "flash_IMAGE";
  std::vector<uint8_t> flash_bytes = readFile("./flash.bin");
  updatePlatformInfo(flash_bytes, getPlatformInfo());
  flash->data = marlo_image_data(std::make_shared<const std::vector<uint8_t>>(std::move(flash_bytes)));
  flash->size = static_cast<uint32_t>(flash->data.size());
  MARLO_LOGD("firmware flash.bin resource Size : %d", static_cast<int>(flash->size));
  list->push_back(std::move(flash));

  auto partition_1 = std::make_unique<marlo_fw_resource>();
  partition_1->img_id = kPartitionImageId;
  partition_1->partition_name = "partition_1_IMAGE";
  partition_1->image_path = "partition_1_IMAGE";
  partition_1->data = images.read(*this, "./partition_1.bin");
  partition_1->size = static_cast<uint32_t>(partition_1->data.size());
  MARLO_LOGD("firmware partition_1.bin resource Size : %d", static_cast<int>(partition_1->size));
  list->push_back(std::move(partition_1));

  MARLO_LOGD("Partition XML Parsing Done.");
  return 1;
}

std::vector<uint8_t> marlo_fw_updater::readFile(const std::string& path, platform::file_info* info) {
  // Joined as they stand: no test for an absolute path or a doubled slash.
  const std::string full_path = std::string(fw_image_dir) + path;
  MARLO_LOGD("readFile Path : %s", full_path.c_str());

  std::vector<uint8_t> bytes;
  platform::file_info file;
  switch (platform::read_file(full_path.c_str(), kMaxFwImageSize, &bytes, &file)) {
    case platform::read_status::read: break;
    case platform::read_status::not_opened: MARLO_LOGE("File open failed : %s", full_path.c_str()); break;
    case platform::read_status::too_large:
      MARLO_LOGE("File too large : %s is %" PRIu64 " bytes, the largest image is %" PRIu64 " bytes", full_path.c_str(),
                 file.size, kMaxFwImageSize);
      break;
  }
  if (info != nullptr) *info = file;
  return bytes;
}

std::shared_ptr<const fw_resource_list> marlo_fw_updater::fwResourcesSnapshot() const {
  platform::lock_guard lock(fw_resources_lock);
  return fw_resources;
}

void marlo_fw_updater::publishFwResources(std::shared_ptr<const fw_resource_list> list) {
  {
    platform::lock_guard lock(fw_resources_lock);
    fw_resources.swap(list);
  }
  // The list replaced is freed here, outside the lock, unless a request
  // still serves from it; then its last holder frees it.
}

bool marlo_fw_updater::checkForFlashbin() {
  const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
  for (const auto& resource : *resources) {
    if (resource->img_id != kFlashImageId) continue;
    if (resource->size != 0) return true;
    MARLO_LOGD("flash.bin file is not found");
    return false;
  }
  return false;
}

int marlo_fw_updater::truncateFwResources() {
  publishFwResources(std::make_shared<const fw_resource_list>());
  return 0;
}
