// The uevent socket's receive, apart from the other device calls so that
// only the restart listener's users link the platform's uevent library.
#include <cutils/uevent.h>

#include "platform/os.h"
#include "platform/wire_tap.h"

namespace platform {

ssize_t receive_uevent(int socket, void* buffer, size_t length) {
  const ssize_t n = uevent_kernel_multicast_recv(socket, buffer, length);
  if (n > 0)
    wire::uevent(buffer, n < static_cast<ssize_t>(length) ? static_cast<size_t>(n) : length, static_cast<size_t>(n));
  return n;
}

}  // namespace platform
