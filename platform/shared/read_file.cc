// The whole-file read of both backends: built on the seam's own open and
// read, so that each backend resolves the path as it resolves every other
// (the host backend under MARLO_ROOT, the device backend as given).
//
// File sizes are 64-bit in this file whatever the platform's default, so
// that a file of 2 GiB or more is measured (and refused), not misread; no
// off_t leaves it.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "platform/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <stdexcept>

#include "platform/os.h"
#include "platform/unique_fd.h"

namespace platform {
namespace {

// Bytes added at a time to the buffer of a file that reports no size.
constexpr size_t kUnsizedChunk = 4096;

// The file at `path` opened for reading, with what fstat says of it (the
// size only for a regular file: a device, a pipe or a kernel file has none
// that counts); an empty descriptor when there is none, or it is a directory.
// Opened without waiting: a pipe would block an open for reading.
unique_fd open_readable(const char* path, file_info* info, bool* regular) {
  unique_fd file(platform::open(path, O_RDONLY | O_NONBLOCK));
  if (!file) return file;
  // The size and identity are those of the file opened, not of whatever the
  // path names a moment later.
  struct stat st {};
  if (::fstat(file.get(), &st) != 0 || S_ISDIR(st.st_mode)) return unique_fd();
  *regular = S_ISREG(st.st_mode);
  info->size = *regular && st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
  info->device = static_cast<uint64_t>(st.st_dev);
  info->inode = static_cast<uint64_t>(st.st_ino);
  return file;
}

// Reads into out[done, out->size()); the count read.
template <typename Bytes>
size_t read_into(int fd, Bytes* out, size_t done) {
  while (done < out->size()) {
    const ssize_t n = platform::read(fd, &(*out)[done], out->size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

template <typename Bytes>
read_status read_whole(const char* path, uint64_t max_bytes, Bytes* out, file_info* info) {
  out->clear();
  file_info opened;
  bool regular = false;
  const unique_fd file = open_readable(path, &opened, &regular);
  if (info != nullptr) *info = opened;
  if (!file) return read_status::not_opened;
  const uint64_t limit = std::min<uint64_t>(max_bytes, std::numeric_limits<uint32_t>::max());
  if (opened.size > limit) return read_status::too_large;
  try {
    if (opened.size > 0) {
      out->resize(static_cast<size_t>(opened.size));
      out->resize(read_into(file.get(), out, 0));
      return read_status::read;
    }
    // No size reported: to the end, a chunk at a time, one byte past the
    // limit at most to tell a file that is too large.
    size_t done = 0;
    for (;;) {
      const uint64_t room = limit + 1 - done;
      out->resize(done + static_cast<size_t>(std::min<uint64_t>(kUnsizedChunk, room)));
      const size_t now = read_into(file.get(), out, done);
      const bool ended = now < out->size();
      done = now;
      if (done > limit) {
        out->clear();
        if (info != nullptr) info->size = done;
        return read_status::too_large;
      }
      if (ended) break;
    }
    out->resize(done);
    return read_status::read;
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  out->clear();
  return read_status::too_large;
}

}  // namespace

read_status read_file(const char* path, uint64_t max_bytes, std::string* out, file_info* info) {
  return read_whole(path, max_bytes, out, info);
}

read_status read_file(const char* path, uint64_t max_bytes, std::vector<uint8_t>* out, file_info* info) {
  return read_whole(path, max_bytes, out, info);
}

bool file_identity(const char* path, file_info* info) {
  file_info opened;
  bool regular = false;
  if (!open_readable(path, &opened, &regular) || !regular) return false;
  if (info != nullptr) *info = opened;
  return true;
}

}  // namespace platform
