#include "sim/device_node.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace marlo::sim {

DeviceNode::DeviceNode(std::string socket_path) : path_(std::move(socket_path)) {
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(addr.sun_path)) throw std::runtime_error("socket path too long: " + path_);
  std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
  listen_fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0) throw std::runtime_error("socket: " + std::string(strerror(errno)));
  ::unlink(path_.c_str());
  if (::bind(listen_fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::listen(listen_fd_, 16) != 0) {
    int err = errno;
    ::close(listen_fd_);
    throw std::runtime_error("bind " + path_ + ": " + strerror(err));
  }
}

DeviceNode::~DeviceNode() {
  ::close(listen_fd_);
  ::unlink(path_.c_str());
}

void DeviceNode::fail_opens(int count, int err) {
  fail_errno_ = err;
  fail_count_ = count;
}

int DeviceNode::accept_open(int timeout_ms) {
  for (;;) {
    struct pollfd entry = {listen_fd_, POLLIN, 0};
    if (::poll(&entry, 1, timeout_ms) != 1) return -1;
    int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return -1;
    ++opens_seen_;
    int32_t status = 0;
    if (fail_count_.load() > 0) {
      --fail_count_;
      status = fail_errno_.load();
    } else if (refusal_errno_.load() != 0) {
      status = refusal_errno_.load();
    }
    uint32_t stream;
    {
      std::lock_guard<std::mutex> lock(streams_mutex_);
      stream = ++last_stream_;
      if (status == 0) streams_[fd] = stream;
    }
    if (capture_) {
      capture_->life(capture_interface_, Direction::Outbound,
                     status == 0 ? "open" : "open refused errno " + std::to_string(status), stream);
    }
    bool sent = send_packet(fd, &status, sizeof(status));
    if (sent && status == 0) return fd;
    forget(fd);
    ::close(fd);
  }
}

uint32_t DeviceNode::stream_of(int fd) const {
  std::lock_guard<std::mutex> lock(streams_mutex_);
  auto it = streams_.find(fd);
  return it == streams_.end() ? 0 : it->second;
}

void DeviceNode::forget(int fd) {
  std::lock_guard<std::mutex> lock(streams_mutex_);
  streams_.erase(fd);
}

bool send_packet(int fd, const void* data, size_t length) {
  return ::send(fd, data, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

long receive_packet(int fd, void* data, size_t capacity, int timeout_ms) {
  struct pollfd entry = {fd, POLLIN, 0};
  if (::poll(&entry, 1, timeout_ms) != 1) return -1;
  return ::recv(fd, data, capacity, 0);
}

long receive_message(int fd, std::vector<uint8_t>& packet, int timeout_ms) {
  struct pollfd entry = {fd, POLLIN, 0};
  if (::poll(&entry, 1, timeout_ms) != 1) return -1;
  ssize_t size = ::recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
  if (size <= 0) return size;
  if (static_cast<size_t>(size) > kMaxPacket) {
    ::recv(fd, nullptr, 0, MSG_TRUNC);
    return -1;
  }
  packet.resize(static_cast<size_t>(size));
  ssize_t got = ::recv(fd, packet.data(), packet.size(), 0);
  if (got < 0) return -1;
  packet.resize(static_cast<size_t>(got));
  return got;
}

}  // namespace marlo::sim
