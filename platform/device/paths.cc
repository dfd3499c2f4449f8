// Device backend, the calls that take a path: each is the system call of the
// same name on the path as given. marlod links this file; the device-side
// test module links testing/scratch_paths.cc in its place.
#include <fcntl.h>

#include <cerrno>

#include "platform/os.h"
#include "platform/wire_tap.h"

namespace platform {

int open(const char* path, int flags, mode_t mode) {
  const int fd = ::open(path, flags | O_CLOEXEC, mode);
  const int err = errno;
  wire::opened(path, fd, err);
  errno = err;
  return fd;
}
int rename(const char* from, const char* to) { return ::rename(from, to); }
int unlink(const char* path) { return ::unlink(path); }
int access(const char* path, int mode) { return ::access(path, mode); }
DIR* opendir(const char* path) { return ::opendir(path); }
FILE* fopen(const char* path, const char* mode) { return ::fopen(path, mode); }

}  // namespace platform
