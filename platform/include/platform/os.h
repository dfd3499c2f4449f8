// The daemon's file, device and timing calls.
//
// Daemon code reaches the kernel only through these functions. The device
// backend forwards each one to the system call of the same name. The host
// backend serves the same calls from the virtual device: paths are resolved
// under MARLO_ROOT, device nodes are UNIX sockets with an open-status
// handshake, control-device ioctls travel as messages, packet channels get a
// packet device's read rules, and sleeps follow MARLO_TIME_SCALE.
#pragma once

#include <dirent.h>
#include <poll.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace platform {

int open(const char* path, int flags, mode_t mode = 0);
int close(int fd);
ssize_t read(int fd, void* buf, size_t count);
ssize_t pread(int fd, void* buf, size_t count, off_t offset);
ssize_t write(int fd, const void* buf, size_t count);
ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset);
off_t lseek(int fd, off_t offset, int whence);
int ftruncate(int fd, off_t length);
// Stable storage: the file's data (fdatasync) or data and metadata (fsync);
// on a directory, its entries.
int fsync(int fd);
int fdatasync(int fd);
int rename(const char* from, const char* to);
int unlink(const char* path);
int poll(struct pollfd* fds, nfds_t nfds, int timeout_ms);
int ioctl(int fd, unsigned long request, void* arg);
int pipe(int fds[2]);
// Only F_DUPFD and F_DUPFD_CLOEXEC are used: a copy of a device node is
// the same device node.
int fcntl(int fd, int cmd, int arg);
int access(const char* path, int mode);
DIR* opendir(const char* path);
FILE* fopen(const char* path, const char* mode);

unsigned int sleep(unsigned int seconds);
int usleep(useconds_t usec);
// The daemon's clock in nanoseconds: monotonic, and on the host scaled like
// the sleeps above (MARLO_TIME_SCALE), so that one second of it passes while
// sleep(1) does. Only differences have a meaning. 1:1 on a device.
int64_t daemon_clock_ns();
// Sleeps as usleep does, scaled like it, but ends early once the pipe `fd`
// has something to read or has hung up, so that a thread waiting out a delay
// can still be woken: 1 when the pipe ended the wait, 0 when the time
// passed, -1 with errno set when the wait failed.
int usleep_or_readable(int fd, useconds_t usec);

// One uevent message from the daemon's uevent socket (the receive that
// libcutils names uevent_kernel_multicast_recv): the message's true length,
// more than `length` when it did not fit.
ssize_t receive_uevent(int socket, void* buffer, size_t length);

// A pointer as the 32-bit user-space word that the control device's request
// block carries. The driver expects 32-bit user pointers.
uint32_t user_word(void* p);

}  // namespace platform
