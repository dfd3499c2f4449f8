#include "sim/tools/replay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "sim/capture/pcapng_reader.h"
#include "sim/capture/session_capture.h"
#include "sim/control_driver.h"
#include "sim/daemon_process.h"
#include "sim/device_node.h"
#include "sim/device_root.h"
#include "sim/dfu_message.h"
#include "sim/uevent_sender.h"
#include "sim/virtual_device.h"

namespace marlo::sim {

namespace {

constexpr int kNodes = 4;            // the device nodes among the interfaces; 4 is the uevents
constexpr size_t kControlBlock = 4;  // offset of the request block in a control request

bool is_outbound(const CapturedPacket& p) { return (p.flags & 3) == static_cast<uint32_t>(Direction::Outbound); }

std::string message_name(uint32_t interface, const Bytes& m, bool outbound) {
  if (m.empty()) return "";
  if (interface == static_cast<uint32_t>(CaptureInterface::Control)) {
    if (!outbound) return "answer";
    ControlRequest r;
    r.request = get_u32(m, 0);
    r.cmd = get_u32(m, kControlBlock + 20);
    return r.name();
  }
  if (interface == static_cast<uint32_t>(CaptureInterface::Dfu)) return dfu_id_name(get_u32(m, 0));
  return "";
}

std::string field_at(uint32_t interface, size_t offset) {
  std::ostringstream out;
  if (interface == static_cast<uint32_t>(CaptureInterface::Control)) {
    if (offset < 4) return "request number";
    if (offset >= kControlBlock + 32) return "data byte " + std::to_string(offset - kControlBlock - 32);
    size_t word = (offset - kControlBlock) / 4 * 4;
    if (word == 0) return "block value";
    if (word == 20) return "block cmd";
    if (word == 24) return "block count";
    out << "block word at +" << word;
    return out.str();
  }
  if (interface == static_cast<uint32_t>(CaptureInterface::Dfu)) {
    static const char* const header[] = {"header id", "header magic", "header length", "header crc"};
    if (offset < kDfuHeaderSize) return header[offset / 4];
    out << "payload word " << (offset - kDfuHeaderSize) / 4;
    return out.str();
  }
  out << "word " << offset / 4;
  return out.str();
}

class Player {
 public:
  Player(const CaptureFile& capture, std::string root, FILE* out)
      : records_(capture.packets), root_(std::move(root)), out_(out), expected_(kNodes) {
    for (int i = 0; i < kNodes; ++i) {
      nodes_.push_back(std::make_unique<DeviceNode>(root_ + "/" + capture_node(static_cast<CaptureInterface>(i))));
    }
    for (size_t i = 0; i < records_.size(); ++i) {
      if (records_[i].interface >= kCaptureInterfaces) continue;
      if (is_outbound(records_[i]) && records_[i].interface < kNodes) expected_[records_[i].interface].push_back(i);
    }
    next_inbound_ = find_inbound(0);
  }

  ~Player() {
    for (auto& connections : connections_) {
      for (int fd : connections) ::close(fd);
    }
  }

  // 0 done, 1 difference.
  int run(DaemonProcess& daemon, int silence_timeout_ms) {
    auto last_progress = std::chrono::steady_clock::now();
    for (;;) {
      while (next_inbound_ < records_.size() && lowest_expected() > next_inbound_) {
        send_inbound(next_inbound_);
        next_inbound_ = find_inbound(next_inbound_ + 1);
        last_progress = std::chrono::steady_clock::now();
      }
      if (next_inbound_ >= records_.size() && only_closes_left()) return 0;
      if (failed_) return 1;
      std::vector<struct pollfd> fds;
      std::vector<int> owner;
      for (int i = 0; i < kNodes; ++i) {
        fds.push_back({nodes_[i]->listen_fd(), POLLIN, 0});
        owner.push_back(i);
      }
      for (int i = 0; i < kNodes; ++i) {
        for (int fd : connections_[i]) {
          fds.push_back({fd, POLLIN, 0});
          owner.push_back(i);
        }
      }
      if (::poll(fds.data(), fds.size(), 50) > 0) {
        for (size_t k = 0; k < fds.size() && !failed_; ++k) {
          if (fds[k].revents == 0) continue;
          if (k < kNodes) {
            accept(owner[k]);
          } else {
            receive(owner[k], fds[k].fd, fds[k].revents);
          }
          last_progress = std::chrono::steady_clock::now();
        }
        if (failed_) return 1;
        continue;
      }
      if (!daemon.alive()) return fail("the daemon ended; " + awaited());
      if (std::chrono::steady_clock::now() - last_progress > std::chrono::milliseconds(silence_timeout_ms)) {
        return fail("nothing from the daemon for " + std::to_string(silence_timeout_ms / 1000) + " s; " + awaited());
      }
    }
  }

 private:
  size_t find_inbound(size_t from) const {
    while (from < records_.size() && (is_outbound(records_[from]) || records_[from].interface >= kCaptureInterfaces)) {
      ++from;
    }
    return from;
  }

  // The daemon's closes at the end of a recording are those of its ending
  // (the recorded session stopped it), which a replay does not wait for.
  bool only_closes_left() const {
    for (const auto& queue : expected_) {
      for (size_t index : queue) {
        if (records_[index].comment != "closed by daemon") return false;
      }
    }
    return true;
  }

  size_t lowest_expected() const {
    size_t lowest = records_.size();
    for (const auto& queue : expected_) {
      if (!queue.empty()) lowest = std::min(lowest, queue.front());
    }
    return lowest;
  }

  std::string where(size_t index) const {
    const CapturedPacket& r = records_[index];
    std::string name = message_name(r.interface, r.data, is_outbound(r));
    return std::string(capture_node(static_cast<CaptureInterface>(r.interface))) + " frame " +
           std::to_string(index + 1) + (name.empty() ? "" : " (" + name + ")");
  }

  std::string describe(size_t index) const {
    const CapturedPacket& r = records_[index];
    return r.data.empty() ? "\"" + r.comment + "\"" : std::to_string(r.data.size()) + "-byte message";
  }

  std::string awaited() const {
    size_t lowest = lowest_expected();
    return lowest < records_.size() ? "waiting for " + describe(lowest) + " at " + where(lowest) : "waiting";
  }

  int fail(const std::string& text) {
    std::fprintf(out_, "replay: MISMATCH: %s\n", text.c_str());
    failed_ = true;
    return 1;
  }

  // The next recorded daemon action on `node`, skipping the daemon's closes
  // (the device sees a close at its own pace, so its place among the other
  // actions of the node is not fixed).
  std::deque<size_t>::iterator next_action(int node) {
    auto& queue = expected_[node];
    auto it = queue.begin();
    while (it != queue.end() && records_[*it].comment == "closed by daemon") ++it;
    return it;
  }

  void accept(int node) {
    int fd = ::accept4(nodes_[node]->listen_fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    auto it = next_action(node);
    const std::string open = "open", refused = "open refused errno ";
    if (it == expected_[node].end() || !records_[*it].data.empty() ||
        (records_[*it].comment != open && records_[*it].comment.rfind(refused, 0) != 0)) {
      ::close(fd);
      fail(std::string("the daemon opened ") + capture_node(static_cast<CaptureInterface>(node)) +
           "; the recording has " +
           (it == expected_[node].end() ? "no more actions there" : describe(*it) + " at " + where(*it)));
      return;
    }
    const std::string& comment = records_[*it].comment;
    int32_t status = comment == open ? 0 : std::atoi(comment.c_str() + refused.size());
    expected_[node].erase(it);
    send_packet(fd, &status, sizeof(status));
    if (status != 0) {
      ::close(fd);
      return;
    }
    connections_[node].push_back(fd);
  }

  void receive(int node, int fd, short revents) {
    Bytes message;
    long n = receive_message(fd, message, 0);
    if (n > 0) {
      last_sender_[node] = fd;
      auto it = next_action(node);
      if (it == expected_[node].end() || records_[*it].data.empty()) {
        std::string name = message_name(node, message, true);
        fail("the daemon sent a " + std::to_string(n) + "-byte message" + (name.empty() ? "" : " (" + name + ")") +
             " on " + capture_node(static_cast<CaptureInterface>(node)) + "; the recording has " +
             (it == expected_[node].end() ? "nothing more there" : describe(*it) + " at " + where(*it)));
        return;
      }
      const Bytes& recorded = records_[*it].data;
      if (message != recorded) {
        size_t offset = 0;
        while (offset < message.size() && offset < recorded.size() && message[offset] == recorded[offset]) ++offset;
        std::ostringstream text;
        text << where(*it) << ", message " << (++seen_[node]) << " of its node: ";
        if (offset == message.size() || offset == recorded.size()) {
          text << "length " << message.size() << ", recorded " << recorded.size();
        } else {
          text << "byte " << offset << " (" << field_at(node, offset) << ") is 0x" << std::hex
               << static_cast<int>(message[offset]) << ", recorded 0x" << static_cast<int>(recorded[offset]);
          // A checksum differs with any other byte: name the next field that differs too.
          size_t next = offset / 4 * 4 + 4;
          while (next < message.size() && next < recorded.size() && message[next] == recorded[next]) ++next;
          if (next < message.size() && next < recorded.size()) {
            text << "; then byte " << std::dec << next << " (" << field_at(node, next) << ") is 0x" << std::hex
                 << static_cast<int>(message[next]) << ", recorded 0x" << static_cast<int>(recorded[next]);
          }
        }
        fail(text.str());
        return;
      }
      ++seen_[node];
      if (node == static_cast<int>(CaptureInterface::Control)) last_request_ = message;
      expected_[node].erase(it);
      return;
    }
    if (n == 0 || (revents & (POLLHUP | POLLERR))) {
      auto& connections = connections_[node];
      connections.erase(std::remove(connections.begin(), connections.end(), fd), connections.end());
      ::close(fd);
      if (last_sender_[node] == fd) last_sender_[node] = -1;
      auto hung = std::find(hung_up_.begin(), hung_up_.end(), fd);
      if (hung != hung_up_.end()) {
        hung_up_.erase(hung);
        return;
      }
      auto& queue = expected_[node];
      for (auto it = queue.begin(); it != queue.end(); ++it) {
        if (records_[*it].comment == "closed by daemon") {
          queue.erase(it);
          return;
        }
      }
      fail(std::string("the daemon closed ") + capture_node(static_cast<CaptureInterface>(node)) +
           "; the recording has no such close; " + awaited());
    }
  }

  int target(int node) const {
    const auto& connections = connections_[node];
    if (last_sender_[node] >= 0) return last_sender_[node];
    return connections.empty() ? -1 : connections.back();
  }

  void set_state(bool running) { write_text_atomic(root_ + kRemoteprocState, running ? "running\n" : "offline\n"); }

  void send_inbound(size_t index) {
    const CapturedPacket& r = records_[index];
    if (r.interface == static_cast<uint32_t>(CaptureInterface::Uevent)) {
      std::string event(r.data.begin(), r.data.end());
      if (event.find("MARLO_EVENT=1") != std::string::npos) set_state(false);
      if (event.find("MARLO_EVENT=4") != std::string::npos) set_state(true);
      // The daemon may not have bound its socket yet at this point of a replay.
      for (int attempt = 0; attempt < 100 && !send_uevent(root_, event); ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      return;
    }
    int node = static_cast<int>(r.interface);
    int fd = target(node);
    if (r.data.empty()) {  // "closed by co-processor"
      if (fd >= 0) {
        hung_up_.push_back(fd);
        ::shutdown(fd, SHUT_RDWR);
        if (last_sender_[node] == fd) last_sender_[node] = -1;
      }
      return;
    }
    if (node == static_cast<int>(CaptureInterface::Control) && get_u32(last_request_, 0) == kReqBoot) {
      uint32_t cmd = get_u32(last_request_, kControlBlock + 20);
      if (cmd == kCmdLoad && get_u32(r.data, 0) == 0) set_state(true);
      if (cmd == kCmdSoftReset || cmd == kCmdUnload) set_state(false);
    }
    if (fd < 0 || !send_packet(fd, r.data.data(), r.data.size())) {
      std::fprintf(out_, "replay: note: %s could not be delivered (no open connection)\n", where(index).c_str());
    }
  }

  const std::vector<CapturedPacket>& records_;
  std::string root_;
  FILE* out_;
  std::vector<std::unique_ptr<DeviceNode>> nodes_;
  std::vector<std::deque<size_t>> expected_;  // per node: outbound records not yet seen
  std::vector<int> connections_[kNodes];
  int last_sender_[kNodes] = {-1, -1, -1, -1};
  int seen_[kNodes] = {0, 0, 0, 0};
  std::vector<int> hung_up_;
  Bytes last_request_;
  size_t next_inbound_ = 0;
  bool failed_ = false;
};

void rebuild_root(const std::string& root, const std::string& setup) {
  VirtualDevice::build_sample_root(root);
  std::istringstream in(setup);
  std::string line;
  bool running = false;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    if (key == "running") running = value == "1";
    if (key.rfind("property.", 0) == 0) set_property(root, key.substr(9), value);
  }
  write_text_atomic(root + kRemoteprocState, running ? "running\n" : "offline\n");
}

}  // namespace

int run_replay(const ReplayOptions& options, FILE* out) {
  CaptureFile capture;
  std::string error;
  if (!read_capture(options.capture, &capture, &error)) {
    std::fprintf(out, "replay: %s\n", error.c_str());
    return 2;
  }
  if (capture.application != "marlo-sim" || capture.interfaces.size() != kCaptureInterfaces) {
    std::fprintf(out, "replay: %s is not a marlo-sim session capture\n", options.capture.c_str());
    return 2;
  }
  std::string root = make_temp_root("marlo-replay");
  rebuild_root(root, capture.setup);
  int result;
  {
    Player player(capture, root, out);
    DaemonSettings settings{options.marlod, root, root + "/sim/marlod.log", root + "/sim/marlod.stderr",
                            options.time_scale};
    DaemonProcess daemon(settings);
    if (!daemon.start(&error)) {
      std::fprintf(out, "replay: cannot run the daemon: %s\n", error.c_str());
      return 2;
    }
    result = player.run(daemon, options.silence_timeout_ms);
  }
  if (result == 0) {
    std::fprintf(out, "replay: %zu messages matched\n", capture.packets.size());
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  } else {
    std::fprintf(out, "replay: device root and daemon log kept at %s\n", root.c_str());
  }
  return result;
}

}  // namespace marlo::sim
