// The host's kernel uevent socket: a datagram socket that the daemon binds at
// $MARLO_ROOT/dev/uevent. Each datagram is one uevent message.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <cutils/uevent.h>

#include "host_root.h"
#include "platform/os.h"
#include "platform/wire_tap.h"

extern "C" int uevent_open_socket(int buf_sz, bool /*passcred*/) {
  std::string path = platform::host::resolve("/dev/uevent");
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf_sz, sizeof(buf_sz));
  ::unlink(path.c_str());
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

// Reports the datagram's true length, so that a message longer than the
// buffer is seen as too long.
//
// Overrun fault: an AF_UNIX datagram socket never reports ENOBUFS (a full
// receive queue blocks or refuses the sender instead), so a test makes one
// receive fail as a netlink socket does after a burst by creating the file
// dev/uevent.overrun in the root. The next datagram received is then lost: it
// is dropped, the file removed and the receive fails with ENOBUFS.
extern "C" ssize_t uevent_kernel_multicast_recv(int socket, void* buffer, size_t length) {
  ssize_t n;
  do {
    n = ::recv(socket, buffer, length, MSG_TRUNC);
  } while (n < 0 && errno == EINTR);
  if (n >= 0 && ::unlink(platform::host::resolve("/dev/uevent.overrun").c_str()) == 0) {
    errno = ENOBUFS;
    return -1;
  }
  return n;
}

namespace platform {

ssize_t receive_uevent(int socket, void* buffer, size_t length) {
  const ssize_t n = uevent_kernel_multicast_recv(socket, buffer, length);
  if (n > 0) wire::uevent(buffer, std::min(static_cast<size_t>(n), length), static_cast<size_t>(n));
  return n;
}

}  // namespace platform
