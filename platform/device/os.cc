// Device backend: every call is the system call of the same name. The calls
// that take a path are in paths.cc.
#include "platform/os.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/shared/control_message.h"
#include "platform/wire_tap.h"

namespace platform {

// The control device's request block carries 32-bit user pointers; the
// daemon is built for a 32-bit user space on the device.
static_assert(sizeof(void*) == 4, "marlod must be built 32-bit for the control device's request block");

ssize_t pread(int fd, void* buf, size_t count, off_t offset) { return ::pread(fd, buf, count, offset); }
ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) { return ::pwrite(fd, buf, count, offset); }
off_t lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
int ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
int fsync(int fd) { return ::fsync(fd); }
int fdatasync(int fd) { return ::fdatasync(fd); }
int pipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC); }
int close(int fd) {
  wire::closed(fd);
  return ::close(fd);
}

// A packet channel returns one packet per read.
ssize_t read(int fd, void* buf, size_t count) {
  const ssize_t n = ::read(fd, buf, count);
  if (n > 0) {
    wire::received(fd, buf, static_cast<size_t>(n), nullptr, 0);
  } else if (n == 0 && count > 0) {
    wire::hung_up(fd);
  }
  return n;
}

ssize_t write(int fd, const void* buf, size_t count) {
  const ssize_t n = ::write(fd, buf, count);
  if (n > 0) wire::sent(fd, buf, static_cast<size_t>(n));
  return n;
}

int poll(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
  const int ready = ::poll(fds, nfds, timeout_ms);
  if (ready > 0 && wire::observing()) {
    for (nfds_t i = 0; i < nfds; ++i) {
      if (fds[i].revents & POLLHUP) wire::hung_up(fds[i].fd);
    }
  }
  return ready;
}

namespace {

using namespace control_message;

const uint8_t* block_pointer(const uint8_t* block, size_t word) {
  return reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(block_word(block, word)));
}

// The control device's request and answer as the virtual device carries
// them, for the wire's observer.
int observed_control_ioctl(int fd, unsigned long request, uint8_t* block) {
  uint32_t reset_data = 0;
  if (request == kResetRequest) {
    if (const uint8_t* data = block_pointer(block, kBlockValueWord)) std::memcpy(&reset_data, data, sizeof(reset_data));
  }
  const std::vector<uint8_t> message = control_message::request(request, block, reset_data);
  wire::control(fd, wire::Direction::Outbound, message.data(), message.size());
  const uint8_t* reply = request == kIpcRequest ? block_pointer(block, kBlockReplyWord) : nullptr;
  const int32_t result = ::ioctl(fd, request, block);
  const int32_t err = result == -1 ? errno : 0;
  uint8_t answer[kMaxAnswer];
  std::memcpy(answer, &result, 4);
  std::memcpy(answer + 4, &err, 4);
  std::memcpy(answer + kAnswerHeader, block, kRequestBlock);
  size_t answer_length = kAnswerHeader + kRequestBlock;
  if (reply != nullptr && result != -1) {
    std::memcpy(answer + answer_length, reply, kVersionRecord);
    answer_length += kVersionRecord;
  }
  wire::control(fd, wire::Direction::Inbound, answer, answer_length);
  errno = err;
  return result;
}

}  // namespace

int ioctl(int fd, unsigned long request, void* arg) {
  if (!wire::observing() || !wire::is_node(fd, wire::Node::Control)) return ::ioctl(fd, request, arg);
  return observed_control_ioctl(fd, request, static_cast<uint8_t*>(arg));
}

int fcntl(int fd, int cmd, int arg) {
  const int result = ::fcntl(fd, cmd, arg);
  if (result >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC)) wire::duplicated(fd, result);
  return result;
}

unsigned int sleep(unsigned int seconds) { return ::sleep(seconds); }
int usleep(useconds_t usec) { return ::usleep(usec); }
int64_t daemon_clock_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int usleep_or_readable(int fd, useconds_t usec) {
  const struct timespec timeout = {static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
  struct pollfd entry = {fd, POLLIN, 0};
  for (;;) {
    const int ready = ::ppoll(&entry, 1, &timeout, nullptr);
    if (ready >= 0) return ready > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

uint32_t user_word(void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace platform
