// Device backend: every call is the system call of the same name. The calls
// that take a path are in paths.cc.
#include "platform/os.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>

#include <cerrno>

namespace platform {

// The control device's request block carries 32-bit user pointers; the
// daemon is built for a 32-bit user space on the device.
static_assert(sizeof(void*) == 4, "marlod must be built 32-bit for the control device's request block");

int close(int fd) { return ::close(fd); }
ssize_t read(int fd, void* buf, size_t count) { return ::read(fd, buf, count); }
ssize_t pread(int fd, void* buf, size_t count, off_t offset) { return ::pread(fd, buf, count, offset); }
ssize_t write(int fd, const void* buf, size_t count) { return ::write(fd, buf, count); }
ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) { return ::pwrite(fd, buf, count, offset); }
off_t lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
int ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
int fsync(int fd) { return ::fsync(fd); }
int fdatasync(int fd) { return ::fdatasync(fd); }
int poll(struct pollfd* fds, nfds_t nfds, int timeout_ms) { return ::poll(fds, nfds, timeout_ms); }
int ioctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }
int pipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC); }
int fcntl(int fd, int cmd, int arg) { return ::fcntl(fd, cmd, arg); }
unsigned int sleep(unsigned int seconds) { return ::sleep(seconds); }
int usleep(useconds_t usec) { return ::usleep(usec); }

int usleep_or_readable(int fd, useconds_t usec) {
  const struct timespec timeout = {static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
  struct pollfd entry = {fd, POLLIN, 0};
  for (;;) {
    const int ready = ::ppoll(&entry, 1, &timeout, nullptr);
    if (ready >= 0) return ready > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

int64_t daemon_clock_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

uint32_t user_word(void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace platform
