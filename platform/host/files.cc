// Regular-file calls of the host backend: the system calls themselves on
// paths resolved under MARLO_ROOT, each recorded in the file journal when
// one is kept.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "file_journal.h"
#include "host_root.h"
#include "platform/os.h"

namespace platform {

ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) {
  auto recording = host::journal::hold();
  const ssize_t n = ::pwrite(fd, buf, count, offset);
  if (n > 0) host::journal::wrote(fd, offset, buf, static_cast<size_t>(n));
  return n;
}

// Moving the file offset changes nothing on the disk: not recorded.
off_t lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }

int ftruncate(int fd, off_t length) {
  auto recording = host::journal::hold();
  const int result = ::ftruncate(fd, length);
  if (result == 0) host::journal::truncated(fd, length);
  return result;
}

int fsync(int fd) {
  auto recording = host::journal::hold();
  const int result = ::fsync(fd);
  if (result == 0) host::journal::synced(fd);
  return result;
}

int fdatasync(int fd) {
  auto recording = host::journal::hold();
  const int result = ::fdatasync(fd);
  if (result == 0) host::journal::synced(fd);
  return result;
}

int rename(const char* from, const char* to) {
  auto recording = host::journal::hold();
  const int result = ::rename(host::resolve(from).c_str(), host::resolve(to).c_str());
  if (result == 0) host::journal::renamed(from, to);
  return result;
}

int unlink(const char* path) {
  auto recording = host::journal::hold();
  const int result = ::unlink(host::resolve(path).c_str());
  if (result == 0) host::journal::unlinked(path);
  return result;
}

}  // namespace platform
