#include "sim/tools/replay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "common/crc32.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/capture/session_capture.h"
#include "sim/control_driver.h"
#include "sim/daemon_process.h"
#include "sim/device_node.h"
#include "sim/device_root.h"
#include "sim/dfu_message.h"
#include "sim/tools/replay_root.h"
#include "sim/uevent_sender.h"

namespace marlo::sim {

namespace {

constexpr int kNodes = 4;            // the device nodes among the interfaces; 4 is the uevents
constexpr size_t kControlBlock = 4;  // offset of the request block in a control request
constexpr uint32_t kRma = static_cast<uint32_t>(CaptureInterface::Rma);
constexpr uint32_t kDfu = static_cast<uint32_t>(CaptureInterface::Dfu);

bool is_outbound(const CapturedPacket& p) { return (p.flags & 3) == static_cast<uint32_t>(Direction::Outbound); }
bool is_cut(const CapturedPacket& p) { return p.original_length > p.data.size(); }

// A cut inbound message made whole: zeros for the bytes not captured, and
// a checksum that holds over them, so that the daemon takes the message as
// it took the original.
Bytes filled(const CapturedPacket& r) {
  Bytes m = r.data;
  m.resize(r.original_length, 0);
  if (r.interface == kDfu && m.size() >= kDfuHeaderSize) {
    put_u32(m, 12, 0);
    put_u32(m, 12, crc32(m.data(), m.size()));
  } else if (r.interface == kRma && m.size() >= 8) {
    put_u32(m, 0, crc32(m.data() + 4, m.size() - 4));
  }
  return m;
}

// Whether byte `offset` of a daemon message is compared with the record:
// not beyond a cut record's captured length, nor in the checksum of a cut
// RMA message (it covers memory the replay only knows as the zeros it sent).
bool compared(const CapturedPacket& r, size_t offset) {
  if (offset >= r.data.size()) return false;
  return !(is_cut(r) && r.interface == kRma && offset < 4);
}

// The first compared byte at which `message` differs from `r`, or its
// compared length when none does.
size_t first_difference(const Bytes& message, const CapturedPacket& r, size_t from = 0) {
  size_t end = std::min(message.size(), r.data.size());
  size_t offset = from;
  while (offset < end && (!compared(r, offset) || message[offset] == r.data[offset])) ++offset;
  return offset;
}

bool matches(const Bytes& message, const CapturedPacket& r) {
  return message.size() == r.original_length && first_difference(message, r) == std::min(message.size(), r.data.size());
}

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

// One connection the daemon opened: bound to a recorded stream once its
// first message (either way) shows which it is. Two connections opened at
// the same moment by two threads may be accepted in either order.
struct Connection {
  int fd = -1;
  bool bound = false;
  uint32_t stream = 0;
};

class Player {
 public:
  Player(const std::vector<CapturedPacket>& records, std::string root, FILE* out)
      : records_(records), root_(std::move(root)), out_(out), expected_(kNodes) {
    for (int i = 0; i < kNodes; ++i) {
      nodes_.push_back(std::make_unique<DeviceNode>(root_ + "/" + capture_node(static_cast<CaptureInterface>(i))));
    }
    for (size_t i = 0; i < records_.size(); ++i) {
      const CapturedPacket& r = records_[i];
      LifeEvent life = parse_life(r.comment);
      stream_.push_back(r.stream != 0 ? r.stream : life.stream);
      event_.push_back(r.data.empty() ? life.event : "");
      if (r.interface < kNodes && is_outbound(r)) expected_[r.interface].push_back(i);
    }
    next_inbound_ = find_inbound(0);
  }

  ~Player() {
    for (auto& connections : connections_) {
      for (const Connection& c : connections) ::close(c.fd);
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
        for (const Connection& c : connections_[i]) {
          fds.push_back({c.fd, POLLIN, 0});
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

  // Cut daemon messages matched, and their bytes not compared.
  size_t cut_messages = 0, cut_bytes = 0;
  // Cut inbound messages sent whole, and the bytes filled in.
  size_t filled_messages = 0, filled_bytes = 0;

 private:
  size_t find_inbound(size_t from) const {
    while (from < records_.size() && (is_outbound(records_[from]) || records_[from].interface >= kCaptureInterfaces)) {
      ++from;
    }
    return from;
  }

  bool is_close(size_t index) const { return event_[index] == "closed by daemon"; }

  // The daemon's closes at the end of a recording are those of its ending
  // (the recorded session stopped it), which a replay does not wait for.
  bool only_closes_left() const {
    for (const auto& queue : expected_) {
      for (size_t index : queue) {
        if (!is_close(index)) return false;
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
           std::to_string(index + 1) + (stream_[index] != 0 ? " stream " + std::to_string(stream_[index]) : "") +
           (name.empty() ? "" : " (" + name + ")");
  }

  std::string describe(size_t index) const {
    const CapturedPacket& r = records_[index];
    return r.data.empty() ? "\"" + r.comment + "\"" : std::to_string(r.original_length) + "-byte message";
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

  std::string node_name(int node) const { return capture_node(static_cast<CaptureInterface>(node)); }

  // The next recorded daemon message on stream `stream` of `node`, skipping
  // the daemon's closes (the device sees a close at its own pace, so its
  // place among the other actions of the node is not fixed). In a capture
  // without streams, `stream` is 0 and this is the node's next action.
  std::deque<size_t>::iterator next_action(int node, uint32_t stream) {
    auto& queue = expected_[node];
    return std::find_if(queue.begin(), queue.end(), [&](size_t i) { return !is_close(i) && stream_[i] == stream; });
  }

  Connection* connection(int node, int fd) {
    for (Connection& c : connections_[node]) {
      if (c.fd == fd) return &c;
    }
    return nullptr;
  }

  // The stream of a daemon message on `c`: the one it is bound to, or among
  // the streams opened and not yet bound, the first whose next record is
  // this message (the first of them when none is).
  uint32_t stream_of_message(int node, Connection& c, const Bytes& message) {
    auto& open = unbound_[node];
    if (!c.bound && !open.empty()) {
      auto chosen = std::find_if(open.begin(), open.end(), [&](uint32_t s) {
        auto it = next_action(node, s);
        return it != expected_[node].end() && matches(message, records_[*it]);
      });
      if (chosen == open.end()) chosen = open.begin();
      c.stream = *chosen;
      open.erase(chosen);
    }
    c.bound = true;
    return c.stream;
  }

  // The connection an inbound record of stream `stream` goes to.
  int inbound_target(int node, uint32_t stream) {
    if (stream == 0) {
      if (last_sender_[node] >= 0) return last_sender_[node];
      return connections_[node].empty() ? -1 : connections_[node].back().fd;
    }
    for (const Connection& c : connections_[node]) {
      if (c.bound && c.stream == stream) return c.fd;
    }
    auto& open = unbound_[node];
    auto waiting = std::find(open.begin(), open.end(), stream);
    if (waiting == open.end()) return -1;
    for (Connection& c : connections_[node]) {
      if (!c.bound) {
        c.bound = true;
        c.stream = stream;
        open.erase(waiting);
        return c.fd;
      }
    }
    return -1;
  }

  void accept(int node) {
    int fd = ::accept4(nodes_[node]->listen_fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    // The node's next action, passing over the records of its connections
    // still open (another thread's).
    auto& queue = expected_[node];
    auto it = std::find_if(queue.begin(), queue.end(), [&](size_t i) {
      return !is_close(i) && (stream_[i] == 0 || !live_[node].count(stream_[i]));
    });
    const std::string open = "open", refused = "open refused errno ";
    if (it == queue.end() || !records_[*it].data.empty() ||
        (event_[*it] != open && event_[*it].rfind(refused, 0) != 0)) {
      ::close(fd);
      fail("the daemon opened " + node_name(node) + "; the recording has " +
           (it == queue.end() ? "no more actions there" : describe(*it) + " at " + where(*it)));
      return;
    }
    const uint32_t stream = stream_[*it];
    int32_t status = event_[*it] == open ? 0 : std::atoi(event_[*it].c_str() + refused.size());
    queue.erase(it);
    send_packet(fd, &status, sizeof(status));
    if (status != 0) {
      ::close(fd);
      return;
    }
    connections_[node].push_back(Connection{fd, stream == 0, 0});
    if (stream != 0) {
      live_[node].insert(stream);
      unbound_[node].push_back(stream);
    }
  }

  void check_message(int node, int fd, const Bytes& message) {
    last_sender_[node] = fd;
    Connection* c = connection(node, fd);
    if (c == nullptr) return;  // not one of the node's connections
    uint32_t stream = stream_of_message(node, *c, message);
    auto it = next_action(node, stream);
    if (it == expected_[node].end() || records_[*it].data.empty()) {
      std::string name = message_name(node, message, true);
      fail("the daemon sent a " + std::to_string(message.size()) + "-byte message" +
           (name.empty() ? "" : " (" + name + ")") + " on " + node_name(node) + "; the recording has " +
           (it == expected_[node].end() ? "nothing more there" : describe(*it) + " at " + where(*it)));
      return;
    }
    const CapturedPacket& recorded = records_[*it];
    ++seen_[node];
    if (!matches(message, recorded)) {
      size_t offset = first_difference(message, recorded);
      std::ostringstream text;
      text << where(*it) << ", message " << seen_[node] << " of its node: ";
      if (offset == std::min(message.size(), recorded.data.size())) {
        text << "length " << message.size() << ", recorded " << recorded.original_length;
      } else {
        text << "byte " << offset << " (" << field_at(node, offset) << ") is 0x" << std::hex
             << static_cast<int>(message[offset]) << ", recorded 0x" << static_cast<int>(recorded.data[offset]);
        // A checksum differs with any other byte: name the next field that differs too.
        size_t next = first_difference(message, recorded, offset / 4 * 4 + 4);
        if (next < std::min(message.size(), recorded.data.size())) {
          text << "; then byte " << std::dec << next << " (" << field_at(node, next) << ") is 0x" << std::hex
               << static_cast<int>(message[next]) << ", recorded 0x" << static_cast<int>(recorded.data[next]);
        }
      }
      fail(text.str());
      return;
    }
    if (is_cut(recorded)) {
      ++cut_messages;
      cut_bytes += recorded.original_length - recorded.data.size();
    }
    if (node == static_cast<int>(CaptureInterface::Control)) last_request_ = message;
    expected_[node].erase(it);
  }

  void check_close(int node, int fd) {
    auto& connections = connections_[node];
    auto gone = std::find_if(connections.begin(), connections.end(), [fd](const Connection& c) { return c.fd == fd; });
    if (gone == connections.end()) return;
    Connection c = *gone;
    connections.erase(gone);
    ::close(fd);
    if (last_sender_[node] == fd) last_sender_[node] = -1;
    auto hung = std::find(hung_up_.begin(), hung_up_.end(), fd);
    if (hung != hung_up_.end()) {
      hung_up_.erase(hung);
      return;
    }
    auto& queue = expected_[node];
    if (!c.bound && !unbound_[node].empty()) {
      // Closed before any message: the open stream whose next record is a close.
      auto& open = unbound_[node];
      auto chosen = std::find_if(open.begin(), open.end(), [&](uint32_t s) {
        auto next = std::find_if(queue.begin(), queue.end(), [&](size_t i) { return stream_[i] == s; });
        return next != queue.end() && is_close(*next);
      });
      if (chosen == open.end()) chosen = open.begin();
      c.stream = *chosen;
      open.erase(chosen);
    }
    live_[node].erase(c.stream);
    auto close =
        std::find_if(queue.begin(), queue.end(), [&](size_t i) { return is_close(i) && stream_[i] == c.stream; });
    if (close != queue.end()) {
      queue.erase(close);
      return;
    }
    fail("the daemon closed " + node_name(node) + "; the recording has no such close; " + awaited());
  }

  void receive(int node, int fd, short revents) {
    Bytes message;
    long n = receive_message(fd, message, 0);
    if (n > 0) {
      check_message(node, fd, message);
    } else if (n == 0 || (revents & (POLLHUP | POLLERR))) {
      check_close(node, fd);
    }
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
    int fd = inbound_target(node, stream_[index]);
    if (r.data.empty()) {
      if (fd < 0) return;
      if (event_[index] == "half-closed by co-processor") {
        ::shutdown(fd, SHUT_WR);
        return;
      }
      // "closed by co-processor"
      hung_up_.push_back(fd);
      ::shutdown(fd, SHUT_RDWR);
      if (last_sender_[node] == fd) last_sender_[node] = -1;
      live_[node].erase(stream_[index]);
      return;
    }
    if (node == static_cast<int>(CaptureInterface::Control) && get_u32(last_request_, 0) == kReqBoot) {
      uint32_t cmd = get_u32(last_request_, kControlBlock + 20);
      if (cmd == kCmdLoad && get_u32(r.data, 0) == 0) set_state(true);
      if (cmd == kCmdSoftReset || cmd == kCmdUnload) set_state(false);
    }
    const Bytes message = is_cut(r) ? filled(r) : r.data;
    if (is_cut(r)) {
      ++filled_messages;
      filled_bytes += r.original_length - r.data.size();
    }
    if (fd < 0 || !send_packet(fd, message.data(), message.size())) {
      std::fprintf(out_, "replay: note: %s could not be delivered (no open connection)\n", where(index).c_str());
    }
  }

  const std::vector<CapturedPacket>& records_;
  std::vector<uint32_t> stream_;    // per record: its connection's stream, 0 when not given
  std::vector<std::string> event_;  // per record: the life event of a zero-length record
  std::string root_;
  FILE* out_;
  std::vector<std::unique_ptr<DeviceNode>> nodes_;
  std::vector<std::deque<size_t>> expected_;  // per node: outbound records not yet seen
  std::vector<Connection> connections_[kNodes];
  std::deque<uint32_t> unbound_[kNodes];  // per node: streams opened, not yet bound to a connection
  std::set<uint32_t> live_[kNodes];       // per node: streams opened and not yet closed
  int last_sender_[kNodes] = {-1, -1, -1, -1};
  int seen_[kNodes] = {0, 0, 0, 0};
  std::vector<int> hung_up_;
  Bytes last_request_;
  size_t next_inbound_ = 0;
  bool failed_ = false;
};

// The first record a replay cannot reproduce, and why.
struct Break {
  size_t index;
  std::string reason;
};

std::optional<Break> first_break(const CaptureFile& capture) {
  for (size_t i = 0; i < capture.packets.size(); ++i) {
    const CapturedPacket& p = capture.packets[i];
    if (i == capture.second_section_at) return Break{i, "a second recording starts here (a new section)"};
    if (!p.data.empty()) continue;
    if (p.comment.rfind("dropped", 0) == 0) return Break{i, "the recording lost messages here: \"" + p.comment + "\""};
    if (p.comment == "device power cycle") return Break{i, "the device rebooted here, and the daemon with it"};
  }
  if (!capture.truncated.empty()) return Break{capture.packets.size(), "the file is cut short: " + capture.truncated};
  return std::nullopt;
}

// "from frame N at S s (UTC time)" for record `index`; "after frame N ..."
// past the last one.
std::string point(const CaptureFile& capture, size_t index) {
  const auto& packets = capture.packets;
  if (packets.empty()) return "at the start";
  size_t shown = std::min(index, packets.size() - 1);
  uint64_t us = packets[shown].timestamp_us;
  char relative[32], absolute[32];
  std::snprintf(relative, sizeof(relative), "%.6f s", static_cast<double>(us - packets[0].timestamp_us) / 1e6);
  std::time_t seconds = static_cast<std::time_t>(us / 1000000);
  struct tm utc {};
  gmtime_r(&seconds, &utc);
  std::strftime(absolute, sizeof(absolute), "%Y-%m-%d %H:%M:%S UTC", &utc);
  return (index < packets.size() ? "from frame " : "after frame ") + std::to_string(shown + 1) + " at " + relative +
         " (" + absolute + ")";
}

}  // namespace

int run_replay(const ReplayOptions& options, FILE* out) {
  CaptureFile capture;
  std::string error;
  if (!read_capture(options.capture, &capture, &error)) {
    std::fprintf(out, "replay: %s\n", error.c_str());
    return 2;
  }
  const bool from_device = !options.images.empty();
  if ((capture.application != "marlo-sim" && !from_device) || capture.interfaces.size() < kCaptureInterfaces) {
    std::fprintf(out,
                 capture.application == "marlod"
                     ? "replay: %s was recorded on a device: give its firmware directories with --images DIR\n"
                     : "replay: %s is not a marlo session capture\n",
                 options.capture.c_str());
    return 2;
  }
  std::vector<CapturedPacket> records = capture.packets;
  std::optional<Break> stop = first_break(capture);
  if (stop) {
    std::fprintf(out, "replay: not replayable %s: %s\n", point(capture, stop->index).c_str(), stop->reason.c_str());
    if (!options.prefix) {
      std::fprintf(out, "replay: --prefix replays the %zu records before it\n", stop->index);
      return 2;
    }
    records.resize(stop->index);
  }
  std::string root = make_temp_root("marlo-replay");
  if (from_device) {
    std::vector<std::string> notes;
    if (!build_root_from_images(root, options.images, capture, &notes, &error)) {
      std::fprintf(out, "replay: %s\n", error.c_str());
      return 2;
    }
    for (const std::string& note : notes) std::fprintf(out, "replay: device root: %s\n", note.c_str());
  } else {
    build_root_from_setup(root, capture.setup);
  }
  int result;
  {
    Player player(records, root, out);
    DaemonSettings settings{options.marlod, root, root + "/sim/marlod.log", root + "/sim/marlod.stderr",
                            options.time_scale};
    DaemonProcess daemon(settings);
    if (!daemon.start(&error)) {
      std::fprintf(out, "replay: cannot run the daemon: %s\n", error.c_str());
      return 2;
    }
    result = player.run(daemon, options.silence_timeout_ms);
    if (player.cut_messages > 0) {
      std::fprintf(out,
                   "replay: %zu cut messages from the daemon: %zu bytes beyond their captured length not compared "
                   "(their lengths were)\n",
                   player.cut_messages, player.cut_bytes);
    }
    if (player.filled_messages > 0) {
      std::fprintf(out,
                   "replay: %zu cut messages to the daemon sent whole: their %zu missing bytes filled with zeros, "
                   "their checksums computed again\n",
                   player.filled_messages, player.filled_bytes);
    }
  }
  if (result == 0) {
    std::fprintf(out, "replay: %zu messages matched%s\n", records.size(), stop ? " (the replayable part)" : "");
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  } else {
    std::fprintf(out, "replay: device root and daemon log kept at %s\n", root.c_str());
  }
  return result;
}

}  // namespace marlo::sim
