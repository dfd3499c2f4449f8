#include "sim/uevent_sender.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "sim/capture/session_capture.h"

namespace marlo::sim {

std::string marlo_uevent(int event) {
  std::string m = "change@/devices/platform/marlo_com_dev";
  m.push_back('\0');
  m += "ACTION=change";
  m.push_back('\0');
  m += "MARLO_EVENT=" + std::to_string(event);
  m.push_back('\0');
  return m;
}

bool send_uevent(const std::string& root, const std::string& message) {
  std::string path = root + "/dev/uevent";
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  if (std::shared_ptr<SessionCapture> capture = capture_of(root)) {
    capture->packet(CaptureInterface::Uevent, Direction::Inbound, reinterpret_cast<const uint8_t*>(message.data()),
                    message.size());
  }
  ssize_t n = ::sendto(fd, message.data(), message.size(), 0, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
  ::close(fd);
  return n == static_cast<ssize_t>(message.size());
}

bool arm_uevent_overrun(const std::string& root) {
  std::ofstream marker(root + "/dev/uevent.overrun");
  return static_cast<bool>(marker);
}

}  // namespace marlo::sim
