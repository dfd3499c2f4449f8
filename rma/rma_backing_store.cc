#include "rma/rma_backing_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "daemon/marlo_deamon_log.h"
#include "platform/os.h"
#include "platform/unique_fd.h"
#include "rma/rma_file.h"

namespace marlo::rma {

namespace {

struct dir_closer {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

bool is_temporary_name(const char* name) {
  const size_t length = std::strlen(name);
  const size_t suffix = std::strlen(kTemporarySuffix);
  if (length <= suffix || std::strcmp(name + length - suffix, kTemporarySuffix) != 0) return false;
  return std::all_of(name, name + length - suffix, [](char c) { return c >= '0' && c <= '9'; });
}

// Fills a new backing file with `size` written zeros, in bounded chunks
// whatever the size. Written rather than left sparse: the file system then
// holds every block of the partition from the start, so a later DATA_WRITE
// overwrites blocks it owns and cannot fail for want of room once the
// partition was created.
bool fill_with_zeros(int fd, uint64_t size) {
  static const uint8_t kZeros[64 * 1024] = {};
  while (size > 0) {
    const uint64_t chunk = std::min<uint64_t>(size, sizeof(kZeros));
    if (!write_all(fd, kZeros, chunk)) return false;
    size -= chunk;
  }
  return true;
}

// Puts the directory's entries (a rename into it) on stable storage.
bool sync_directory() {
  platform::unique_fd dir(platform::open(kPartitionDir, O_RDONLY | O_DIRECTORY));
  return dir.ok() && platform::fsync(dir.get()) == 0;
}

void remove_file(const std::string& device_path) { platform::unlink(device_path.c_str()); }

}  // namespace

uint64_t stored_bytes() {
  std::unique_ptr<DIR, dir_closer> dir(platform::opendir(kPartitionDir));
  if (!dir) return 0;
  uint64_t total = 0;
  while (const struct dirent* entry = ::readdir(dir.get())) {
    struct stat st;
    if (::fstatat(::dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISREG(st.st_mode)) total += static_cast<uint64_t>(st.st_size);
  }
  return total;
}

create_result create_backing_file(const std::string& name, uint64_t size) {
  const std::string path = kPartitionDir + name;
  if (platform::access(path.c_str(), F_OK) == 0) return create_result::exists;
  if (size > kMaxPartitionBytes) {
    MARLO_LOGE("partition %s of %llu bytes is above the %llu bytes a backing file may hold, not created", path.c_str(),
               static_cast<unsigned long long>(size), static_cast<unsigned long long>(kMaxPartitionBytes));
    return create_result::refused;
  }
  const uint64_t stored = stored_bytes();
  if (stored + size > kMaxStorageBytes) {
    MARLO_LOGE("partition %s of %llu bytes would bring %s from %llu to more than its %llu bytes, not created",
               path.c_str(), static_cast<unsigned long long>(size), kPartitionDir,
               static_cast<unsigned long long>(stored), static_cast<unsigned long long>(kMaxStorageBytes));
    return create_result::refused;
  }
  const std::string temporary = path + kTemporarySuffix;
  platform::unique_fd file(platform::open(temporary.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600));
  if (!file.ok()) {
    MARLO_LOGE("creating %s failed: %s", temporary.c_str(), strerror(errno));
    return create_result::failed;
  }
  if (!fill_with_zeros(file.get(), size) || platform::fsync(file.get()) != 0 || !file.close() ||
      platform::rename(temporary.c_str(), path.c_str()) != 0) {
    MARLO_LOGE("creating %s failed: %s", path.c_str(), strerror(errno));
    remove_file(temporary);
    return create_result::failed;
  }
  // The file is whole under its name now; should the directory not reach
  // stable storage, a power loss leaves the temporary or nothing.
  if (!sync_directory()) MARLO_LOGE("sync of %s failed: %s", kPartitionDir, strerror(errno));
  return create_result::created;
}

void remove_stale_temporaries() {
  std::unique_ptr<DIR, dir_closer> dir(platform::opendir(kPartitionDir));
  if (!dir) return;
  while (const struct dirent* entry = ::readdir(dir.get())) {
    if (!is_temporary_name(entry->d_name)) continue;
    MARLO_LOGI("removing %s%s, left by an interrupted backing file creation", kPartitionDir, entry->d_name);
    if (platform::unlink((std::string(kPartitionDir) + entry->d_name).c_str()) != 0) {
      MARLO_LOGE("removing %s%s failed: %s", kPartitionDir, entry->d_name, strerror(errno));
    }
  }
}

}  // namespace marlo::rma
