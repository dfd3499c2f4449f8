// File sizes are 64-bit in this file whatever the platform's default, so
// that a file of 2 GiB or more is measured (and refused), not misread; no
// off_t leaves it.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include "fwupdater/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <new>
#include <stdexcept>

#include "platform/unique_fd.h"

namespace marlo_fw {
namespace {

void fill_info(const struct stat& st, WholeFileInfo* info) {
  if (info == nullptr) return;
  info->size = st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
  info->device = static_cast<uint64_t>(st.st_dev);
  info->inode = static_cast<uint64_t>(st.st_ino);
}

}  // namespace

WholeFileResult read_whole_file(const std::string& host_path, uint64_t max_size, std::vector<uint8_t>* bytes,
                                WholeFileInfo* info) {
  bytes->clear();
  if (info != nullptr) *info = WholeFileInfo{};
  // Opened on the path the system knows (no device node), closed by the
  // owner through the platform seam, whose close takes any descriptor.
  const platform::unique_fd file(::open(host_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return WholeFileResult::kNotOpened;
  // Only regular files hold images; a directory or device would open but
  // report a meaningless size. The size and identity are those of the file
  // opened, not of whatever the path names a moment later.
  struct stat st {};
  if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return WholeFileResult::kNotOpened;
  fill_info(st, info);
  const uint64_t size = st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
  if (size > max_size || size > std::numeric_limits<uint32_t>::max()) return WholeFileResult::kTooLarge;
  if (size == 0) return WholeFileResult::kRead;

  // One pass into the buffer sized from the file; reading stops at the size
  // measured, so a file that grows meanwhile cannot make the buffer grow,
  // and one that shrinks or cannot be read keeps only the bytes it gave.
  try {
    bytes->resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return WholeFileResult::kTooLarge;
  } catch (const std::length_error&) {
    return WholeFileResult::kTooLarge;
  }
  size_t done = 0;
  while (done < bytes->size()) {
    const ssize_t n = ::read(file.get(), bytes->data() + done, bytes->size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bytes->resize(done);
  return WholeFileResult::kRead;
}

bool whole_file_identity(const std::string& host_path, WholeFileInfo* info) {
  struct stat st {};
  if (::stat(host_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  fill_info(st, info);
  return true;
}

}  // namespace marlo_fw
