#include "sim/tools/control_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "sim/virtual_device.h"

namespace marlo::sim {

namespace {

bool make_address(const std::string& path, struct sockaddr_un* addr) {
  std::memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr->sun_path)) return false;
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

std::string describe_status(VirtualDevice& d) {
  std::ostringstream out;
  CoProcessor& c = d.coprocessor();
  std::optional<FirmwareManifest> fw = c.running_firmware();
  out << "co-processor: " << (c.running() ? "running" : "offline") << ", boot mode "
      << (c.boot_mode() == kBootModeHost ? "HOST" : "FLASH") << ", boots " << c.boots();
  if (fw) out << ", apps " << fw->apps;
  out << "\ndriver: " << d.driver().requests().size() << " requests, SPI " << (d.driver().spi_busy() ? "busy" : "free");
  std::vector<uint32_t> statuses = d.driver().boot_statuses();
  if (!statuses.empty()) out << ", last boot status " << statuses.back();
  DfuStatus s = d.dfu().status();
  out << "\ndfu: state " << s.state << ", image " << s.image_id << " offset " << s.offset << "/" << s.image_size
      << ", sessions " << s.sessions_completed << "/" << s.sessions_started << ", fragments " << s.fragments
      << ", erases " << s.erases.size() << ", crc errors " << s.crc_errors << ", drops " << s.drops;
  MiscStatus m = d.misc().status();
  out << "\nmisc: " << m.packets << " packets, " << m.rejected << " rejected, " << m.finishes << " finishes, "
      << m.stored.size() << " resources stored";
  RmaStatus r = d.rma().status();
  out << "\nrma: runs " << r.runs_completed << "/" << r.runs_started << ", " << r.messages << " requests, "
      << r.bad_answers << " bad answers\n";
  return out.str();
}

}  // namespace

std::string run_device_command(VirtualDevice& device, const std::string& command) {
  std::istringstream in(command);
  std::string verb;
  in >> verb;
  if (verb == "status") return describe_status(device);
  if (verb == "requests") {
    std::ostringstream out;
    std::vector<ControlRequest> all = device.driver().requests();
    const size_t shown = 500;  // the most recent ones
    for (size_t i = all.size() > shown ? all.size() - shown : 0; i < all.size(); ++i) {
      const ControlRequest& r = all[i];
      out << r.name() << " value=" << r.value << " -> " << r.result;
      if (r.result == -1) out << " (errno " << r.err << ")";
      out << "\n";
    }
    return out.str();
  }
  if (verb == "restart") {
    device.restart();
    return "restarted\n";
  }
  if (verb == "power-cycle") {
    device.power_cycle();
    return "powered off; boot mode FLASH\n";
  }
  if (verb == "fault") {
    std::string kind;
    int n = 0;
    if (!(in >> kind >> n) || n < 0) return "error: usage: fault KIND N\n";
    if (kind == "drop-dfu") {
      device.drop_dfu_after(n);
    } else if (kind == "busy") {
      device.busy_control_opens(n);
    } else if (kind == "flash-load") {
      device.fail_flash_loads(n);
    } else if (kind == "rma-restart") {
      device.restart_during_rma(n);
    } else {
      return "error: unknown fault " + kind + "\n";
    }
    return "fault armed: " + kind + " " + std::to_string(n) + "\n";
  }
  return "error: unknown command '" + verb + "'\n";
}

ControlSocketServer::ControlSocketServer(VirtualDevice& device)
    : device_(device), path_(device.root() + kControlSocket) {
  struct sockaddr_un addr;
  if (!make_address(path_, &addr)) throw std::runtime_error("control socket path too long");
  fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ::unlink(path_.c_str());
  if (fd_ < 0 || ::bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd_, 4) != 0) {
    if (fd_ >= 0) ::close(fd_);
    throw std::runtime_error("cannot listen at " + path_);
  }
  thread_ = std::thread(&ControlSocketServer::run, this);
}

ControlSocketServer::~ControlSocketServer() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
  ::close(fd_);
  ::unlink(path_.c_str());
}

void ControlSocketServer::run() {
  while (running_.load()) {
    struct pollfd entry = {fd_, POLLIN, 0};
    if (::poll(&entry, 1, 100) != 1) continue;
    int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    char buf[512];
    struct pollfd in = {client, POLLIN, 0};
    if (::poll(&in, 1, 1000) == 1) {
      ssize_t n = ::recv(client, buf, sizeof(buf) - 1, 0);
      if (n > 0) {
        std::string reply = run_device_command(device_, std::string(buf, static_cast<size_t>(n)));
        ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
      }
    }
    ::close(client);
  }
}

bool send_device_command(const std::string& root, const std::string& command, std::string* reply) {
  struct sockaddr_un addr;
  if (!make_address(root + kControlSocket, &addr)) return false;
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = ::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
            ::send(fd, command.data(), command.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(command.size());
  if (ok) {
    std::vector<char> buf(64 * 1024 * 16);
    struct pollfd in = {fd, POLLIN, 0};
    ssize_t n = ::poll(&in, 1, 10000) == 1 ? ::recv(fd, buf.data(), buf.size(), 0) : -1;
    ok = n >= 0;
    if (ok) reply->assign(buf.data(), static_cast<size_t>(n));
  }
  ::close(fd);
  return ok;
}

}  // namespace marlo::sim
