#include "sim/virtual_flash.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/crc32.h"
#include "sim/boot_loader_elf.h"

namespace fs = std::filesystem;

namespace marlo::sim {

namespace {

std::optional<Bytes> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool pwrite_all(const std::string& path, uint64_t offset, const uint8_t* data, size_t length) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::pwrite(fd, data, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
  ::close(fd);
  return ok;
}

void write_file(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

VirtualFlash::VirtualFlash(std::string dir) : dir_(std::move(dir)) {
  fs::create_directories(dir_);
  if (!fs::exists(raw_path())) {
    std::ofstream(raw_path(), std::ios::binary).close();
    fs::resize_file(raw_path(), kRawSize);  // sparse: reads as zeros until written
  }
}

std::string VirtualFlash::slot(uint32_t id, bool partial) const {
  return dir_ + "/image_" + std::to_string(id) + (partial ? ".partial" : ".bin");
}

std::string VirtualFlash::raw_path() const { return dir_ + "/raw.bin"; }

void VirtualFlash::program(const FirmwareSet& set) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [id, bytes] : set.images) {
    fs::remove(slot(id, true));
    write_file(slot(id, false), bytes);
  }
  for (const PartitionSpec& p : set.partitions) {
    if (p.offset >= kRawSize || p.size > kRawSize - p.offset) continue;
    Bytes fill(p.size);
    for (uint32_t i = 0; i < p.size; ++i) fill[i] = factory_pattern(p.offset + i);
    pwrite_all(raw_path(), p.offset, fill.data(), fill.size());
  }
}

bool VirtualFlash::begin_image(uint32_t id, uint32_t size) {
  if (size == 0 || size > kMaxImageSize) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  fs::remove(slot(id, false));
  write_file(slot(id, true), Bytes(size, 0xFF));
  return true;
}

bool VirtualFlash::write(uint32_t id, uint32_t offset, const uint8_t* data, size_t length) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::error_code ec;
  uintmax_t size = fs::file_size(slot(id, true), ec);
  if (ec || offset > size || length > size - offset) return false;
  return pwrite_all(slot(id, true), offset, data, length);
}

void VirtualFlash::commit() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : fs::directory_iterator(dir_)) {
    fs::path p = entry.path();
    if (p.extension() == ".partial") fs::rename(p, fs::path(p).replace_extension(".bin"));
  }
}

std::optional<Bytes> VirtualFlash::image(uint32_t id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return read_file(slot(id, false));
}

bool VirtualFlash::has_partial_images() const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& entry : fs::directory_iterator(dir_)) {
    if (entry.path().extension() == ".partial") return true;
  }
  return false;
}

bool VirtualFlash::erase(uint32_t offset, uint32_t length) {
  if (offset >= kRawSize || length > kRawSize - offset) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  Bytes erased(length, 0xFF);
  return pwrite_all(raw_path(), offset, erased.data(), erased.size());
}

Bytes VirtualFlash::read_raw(uint32_t offset, uint32_t length) const {
  if (offset >= kRawSize || length > kRawSize - offset) return {};
  std::lock_guard<std::mutex> lock(mutex_);
  Bytes out(length);
  int fd = ::open(raw_path().c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  ssize_t n = ::pread(fd, out.data(), length, offset);
  ::close(fd);
  if (n != static_cast<ssize_t>(length)) return {};
  return out;
}

std::optional<FirmwareManifest> VirtualFlash::bootable_manifest() const {
  std::optional<Bytes> flash = image(kFlashImageId);
  std::optional<Bytes> p1 = image(kPartition1ImageId);
  if (!flash || !p1) return std::nullopt;
  std::optional<FirmwareManifest> m = find_manifest(*flash);
  if (!m) return std::nullopt;
  if (find_debug_policy_segment(*flash, m->sbl_offset) < 0) return std::nullopt;
  if (p1->size() != m->p1_size || crc32(p1->data(), p1->size()) != m->p1_crc) return std::nullopt;
  return m;
}

}  // namespace marlo::sim
