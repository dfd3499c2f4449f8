#include "sim/channel_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace marlo::sim {

namespace {
constexpr int kTickMs = 10;
}

ChannelServer::ChannelServer(std::string socket_path) : node_(std::move(socket_path)) {
  if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe failed");
}

ChannelServer::~ChannelServer() {
  stop();
  ::close(wake_[0]);
  ::close(wake_[1]);
}

void ChannelServer::start() {
  if (running_.exchange(true)) return;
  thread_ = std::thread(&ChannelServer::run, this);
}

void ChannelServer::stop() {
  if (running_.exchange(false)) {
    char byte = 'q';
    ssize_t ignored = ::write(wake_[1], &byte, 1);
    (void)ignored;
  }
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> lock(connections_mutex_);
  for (int fd : connections_) {
    node_.forget(fd);
    ::close(fd);
  }
  connections_.clear();
  hung_up_.clear();
  silent_.clear();
}

void ChannelServer::hang_up_all() {
  std::unique_lock<std::mutex> capture_lock = lock_for_capture();
  std::lock_guard<std::mutex> lock(connections_mutex_);
  for (int fd : connections_) {
    record_hang_up(fd);
    ::shutdown(fd, SHUT_RDWR);
  }
}

void ChannelServer::record_hang_up(int fd) {
  if (std::find(hung_up_.begin(), hung_up_.end(), fd) != hung_up_.end()) return;
  hung_up_.push_back(fd);
  if (SessionCapture* capture = node_.capture()) {
    capture->life(node_.capture_interface(), Direction::Inbound, "closed by co-processor", node_.stream_of(fd));
  }
}

void ChannelServer::deliver_pending(std::chrono::milliseconds limit) {
  if (!running_.load() || std::this_thread::get_id() == loop_id_.load()) return;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  auto waiting = [&deadline] {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
  };
  // Unread packets, or a connection the loop has not yet accepted (the
  // daemon may open the node and write before the loop takes it).
  auto input_queued = [this] {
    struct pollfd listening = {node_.listen_fd(), POLLIN, 0};
    if (::poll(&listening, 1, 0) == 1 && (listening.revents & POLLIN)) return true;
    std::lock_guard<std::mutex> lock(connections_mutex_);
    return std::any_of(connections_.begin(), connections_.end(), [](int fd) {
      int queued = 0;
      return ::ioctl(fd, FIONREAD, &queued) == 0 && queued > 0;
    });
  };
  while (input_queued() && waiting()) {
  }
  // The last packet read may still be in its handler: one more pass ends it.
  const uint64_t seen = passes_.load();
  while (passes_.load() <= seen && waiting()) {
  }
}

int ChannelServer::open_connections() const {
  std::lock_guard<std::mutex> lock(connections_mutex_);
  return static_cast<int>(connections_.size());
}

void ChannelServer::set_packet_observer(std::function<bool()> observer) {
  std::lock_guard<std::mutex> lock(observer_mutex_);
  observer_ = std::move(observer);
}

std::unique_lock<std::mutex> ChannelServer::lock_for_capture() {
  return node_.capture() ? std::unique_lock<std::mutex>(capture_mutex_) : std::unique_lock<std::mutex>();
}

bool ChannelServer::send(int fd, const Bytes& packet) {
  switch (read_fault_.on_send()) {
    case ReadFaultSwitch::Action::Pass: break;
    case ReadFaultSwitch::Action::Cut: {
      const Bytes cut(packet.begin(), packet.begin() + static_cast<long>(ReadFaultSwitch::cut_length(packet.size())));
      return send_shaped(fd, cut);
    }
    case ReadFaultSwitch::Action::HalfClose: ::shutdown(fd, SHUT_WR); return true;
    default: return true;  // the co-processor stays silent
  }
  return send_shaped(fd, packet);
}

void ChannelServer::arm_answer_fault(AnswerFault fault) {
  std::lock_guard<std::mutex> lock(fault_mutex_);
  answer_fault_ = fault;
}

void ChannelServer::half_close_all() {
  std::unique_lock<std::mutex> capture_lock = lock_for_capture();
  std::lock_guard<std::mutex> lock(connections_mutex_);
  for (int fd : connections_) {
    if (SessionCapture* capture = node_.capture()) {
      capture->life(node_.capture_interface(), Direction::Inbound, "half-closed by co-processor", node_.stream_of(fd));
    }
    ::shutdown(fd, SHUT_WR);
  }
}

bool ChannelServer::inject(const Bytes& packet) {
  std::unique_lock<std::mutex> capture_lock = lock_for_capture();
  std::lock_guard<std::mutex> lock(connections_mutex_);
  if (connections_.empty()) return false;
  if (SessionCapture* capture = node_.capture()) {
    capture->packet(node_.capture_interface(), Direction::Inbound, packet.data(), packet.size(),
                    node_.stream_of(connections_.back()));
  }
  return send_packet(connections_.back(), packet.data(), packet.size());
}

bool ChannelServer::send_shaped(int fd, const Bytes& original) {
  Bytes shaped;
  const Bytes* to_send = &original;
  {
    std::lock_guard<std::mutex> fault_lock(fault_mutex_);
    std::lock_guard<std::mutex> lock(connections_mutex_);
    // A silenced co-processor answers nothing; to its handlers the answer went.
    if (std::find(silent_.begin(), silent_.end(), fd) != silent_.end()) return true;
    if (answer_fault_.kind != AnswerFault::Kind::None) {
      shaped = original;
      const AnswerShaping shaping = shape_answer(answer_fault_, shaped);
      if (shaping.go_silent) silent_.push_back(fd);
      if (!shaping.send) return true;
      to_send = &shaped;
    }
  }
  return send_unbroken(fd, *to_send);
}

bool ChannelServer::send_unbroken(int fd, const Bytes& packet) {
  std::unique_lock<std::mutex> capture_lock = lock_for_capture();
  if (SessionCapture* capture = node_.capture()) {
    // A packet sent after the hang-up never reaches the daemon: not recorded.
    bool hung_up;
    {
      std::lock_guard<std::mutex> lock(connections_mutex_);
      hung_up = std::find(hung_up_.begin(), hung_up_.end(), fd) != hung_up_.end();
    }
    if (!hung_up) {
      capture->packet(node_.capture_interface(), Direction::Inbound, packet.data(), packet.size(), node_.stream_of(fd));
    }
  }
  return send_packet(fd, packet.data(), packet.size());
}

void ChannelServer::hang_up(int fd) {
  std::unique_lock<std::mutex> capture_lock = lock_for_capture();
  {
    std::lock_guard<std::mutex> lock(connections_mutex_);
    record_hang_up(fd);
  }
  ::shutdown(fd, SHUT_RDWR);
}

int ChannelServer::newest_connection() const {
  std::lock_guard<std::mutex> lock(connections_mutex_);
  return connections_.empty() ? -1 : connections_.back();
}

void ChannelServer::close_connection(int fd) {
  {
    std::lock_guard<std::mutex> lock(connections_mutex_);
    connections_.erase(std::remove(connections_.begin(), connections_.end(), fd), connections_.end());
    silent_.erase(std::remove(silent_.begin(), silent_.end(), fd), silent_.end());
    auto hung_up = std::find(hung_up_.begin(), hung_up_.end(), fd);
    if (hung_up != hung_up_.end()) {
      hung_up_.erase(hung_up);
    } else if (SessionCapture* capture = node_.capture()) {
      capture->life(node_.capture_interface(), Direction::Outbound, "closed by daemon", node_.stream_of(fd));
    }
  }
  on_closed(fd);
  node_.forget(fd);
  ::close(fd);
}

bool ChannelServer::serve_connection(int fd, short revents, Bytes& packet) {
  uint8_t first_byte;
  const bool packet_waiting = ::recv(fd, &first_byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  const ReadFaultSwitch::Action fault = packet_waiting ? read_fault_.on_receive() : ReadFaultSwitch::Action::Pass;
  if (fault == ReadFaultSwitch::Action::Reset) {
    {
      std::unique_lock<std::mutex> capture_lock = lock_for_capture();
      std::lock_guard<std::mutex> lock(connections_mutex_);
      record_hang_up(fd);
    }
    close_connection(fd);  // with the daemon's packet unread
    return false;
  }
  long n = receive_message(fd, packet, 0);
  if (n > 0 && fault == ReadFaultSwitch::Action::Drop) return true;
  if (n > 0) {
    if (SessionCapture* capture = node_.capture()) {
      capture->packet(node_.capture_interface(), Direction::Outbound, packet.data(), packet.size(),
                      node_.stream_of(fd));
    }
    std::function<bool()> observer;
    {
      std::lock_guard<std::mutex> lock(observer_mutex_);
      observer = observer_;
    }
    if (!observer || !observer()) on_packet(fd, packet);
    return true;
  }
  if (n == 0 || (revents & (POLLHUP | POLLERR))) {
    close_connection(fd);
    return false;
  }
  return true;
}

void ChannelServer::run() {
  loop_id_ = std::this_thread::get_id();
  Bytes packet;
  while (running_.load()) {
    std::vector<struct pollfd> fds;
    fds.push_back({wake_[0], POLLIN, 0});
    fds.push_back({node_.listen_fd(), POLLIN, 0});
    {
      std::lock_guard<std::mutex> lock(connections_mutex_);
      for (int fd : connections_) fds.push_back({fd, POLLIN, 0});
    }
    int ready = ::poll(fds.data(), fds.size(), kTickMs);
    if (!running_.load()) break;
    if (ready > 0) {
      // The open connections first: poll looks at them after the listening
      // socket, so a connection the daemon closed before it opened the one
      // waiting shows its hang-up here. Its last packets and its close are
      // taken now, and recorded before the newer open.
      const bool open_waiting = (fds[1].revents & POLLIN) != 0;
      for (size_t i = 2; i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        bool open = serve_connection(fds[i].fd, fds[i].revents, packet);
        if (open_waiting && (fds[i].revents & POLLHUP)) {
          while (open) open = serve_connection(fds[i].fd, fds[i].revents, packet);
        }
      }
      if (open_waiting) {
        int fd = node_.accept_open(0);
        if (fd >= 0) {
          {
            std::lock_guard<std::mutex> lock(connections_mutex_);
            connections_.push_back(fd);
          }
          if (read_fault_.half_close_new_connection()) ::shutdown(fd, SHUT_WR);
          on_open(fd);
        }
      }
    }
    on_tick();
    ++passes_;
  }
}

}  // namespace marlo::sim
