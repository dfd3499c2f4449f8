// Device nodes of the virtual device.
//
// A device node is a SOCK_SEQPACKET socket under $MARLO_ROOT on which the
// virtual device listens. Opening the node connects to it and waits for the
// device's 32-bit open status. Reads follow a packet device's rules: one read
// never returns bytes of two packets, and what a short read leaves of a packet
// is kept for the next reads. Control-device ioctls are one request message
// and one answer message.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "file_journal.h"
#include "fork_safety.h"
#include "host_root.h"
#include "platform/host_testing.h"
#include "platform/os.h"
#include "platform/shared/control_message.h"
#include "platform/wire_tap.h"

namespace {

// The largest packet the virtual device sends.
constexpr size_t kMaxPacket = 1 << 20;
// How long an open waits for the device's open status.
constexpr time_t kOpenStatusTimeoutSeconds = 10;
// How long an ioctl waits for the device's answer: a driver whose
// co-processor never answers fails the call with ETIMEDOUT, as a kernel
// driver's bounded wait does, instead of holding the caller for ever.
constexpr int kAnswerTimeoutMs = 5000;

using namespace platform::control_message;

struct Fault {
  int err = 0;
  int count = 0;
};

struct Node {
  std::vector<uint8_t> kept;  // unread rest of the current packet
  size_t kept_off = 0;
  Fault read_fault;
  Fault write_fault;

  size_t kept_left() const { return kept.size() - kept_off; }
};

std::mutex g_nodes_mutex;
[[maybe_unused]] const bool g_nodes_mutex_fork_safe = platform::host::keep_unlocked_across_fork<g_nodes_mutex>();
std::unordered_map<int, Node> g_nodes;

bool is_node(int fd) {
  std::lock_guard<std::mutex> lock(g_nodes_mutex);
  return g_nodes.count(fd) != 0;
}

// Consumes one injected fault of the given kind; true when the call must fail.
bool take_fault(int fd, platform::host::FaultOp op) {
  std::lock_guard<std::mutex> lock(g_nodes_mutex);
  auto it = g_nodes.find(fd);
  if (it == g_nodes.end()) return false;
  Fault& fault = op == platform::host::FaultOp::Read ? it->second.read_fault : it->second.write_fault;
  if (fault.count <= 0) return false;
  --fault.count;
  errno = fault.err;
  return true;
}

int connect_node(const std::string& socket_path) {
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof(addr.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    ::close(fd);
    errno = err;
    return -1;
  }
  // A packet is one message, and a message may not exceed the socket's send
  // buffer: room for the largest packet a channel carries (beyond the
  // system's limit for unprivileged processes where the caller may).
  int send_buffer = static_cast<int>(kMaxPacket) + 4096;
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer, sizeof(send_buffer)) != 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof(send_buffer));
  }
  // A device that never answers the open fails it instead of hanging it.
  struct timeval limit = {kOpenStatusTimeoutSeconds, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  int32_t status = 0;
  ssize_t n = ::recv(fd, &status, sizeof(status), 0);
  struct timeval forever = {0, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof(forever));
  if (n != static_cast<ssize_t>(sizeof(status)) || status != 0) {
    int err = (n == static_cast<ssize_t>(sizeof(status))) ? status : (n < 0 && errno == EAGAIN ? ETIMEDOUT : EIO);
    ::close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

// Pointers that user_word() handed out on this thread, for the next ioctl.
thread_local std::vector<void*> t_user_words;

void* user_pointer(uint32_t word) {
  if (word == 0 || word > t_user_words.size()) return nullptr;
  return t_user_words[word - 1];
}

int node_ioctl(int fd, unsigned long request, void* arg) {
  auto* block = static_cast<uint8_t*>(arg);
  uint32_t reset_data = 0;
  if (request == kResetRequest) {
    if (const void* p = user_pointer(block_word(block, kBlockValueWord)))
      std::memcpy(&reset_data, p, sizeof(reset_data));
  }
  const std::vector<uint8_t> message = platform::control_message::request(request, block, reset_data);
  void* reply = (request == kIpcRequest) ? user_pointer(block_word(block, kBlockReplyWord)) : nullptr;
  t_user_words.clear();

  uint8_t answer[kMaxAnswer];
  // An answer that came after its request timed out belongs to no request.
  while (::recv(fd, answer, sizeof(answer), MSG_DONTWAIT) > 0) {
  }
  platform::wire::control(fd, platform::wire::Direction::Outbound, message.data(), message.size());
  if (::send(fd, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size())) return -1;
  struct pollfd waiting = {fd, POLLIN, 0};
  const int ready = ::poll(&waiting, 1, kAnswerTimeoutMs);
  if (ready <= 0) {
    if (ready == 0) errno = ETIMEDOUT;
    return -1;
  }
  ssize_t n = ::recv(fd, answer, sizeof(answer), MSG_DONTWAIT);
  if (n < static_cast<ssize_t>(kAnswerHeader + kRequestBlock)) {
    if (n >= 0) errno = EIO;
    return -1;
  }
  platform::wire::control(fd, platform::wire::Direction::Inbound, answer, static_cast<size_t>(n));
  int32_t result;
  int32_t err;
  std::memcpy(&result, answer, sizeof(result));
  std::memcpy(&err, answer + 4, sizeof(err));
  std::memcpy(block, answer + kAnswerHeader, kRequestBlock);
  if (reply != nullptr && n == static_cast<ssize_t>(sizeof(answer))) {
    std::memcpy(reply, answer + kAnswerHeader + kRequestBlock, kVersionRecord);
  }
  if (result == -1) errno = err;
  return result;
}

// Receives the next packet with one call: its first `count` bytes straight
// into `buf`, the rest into this thread's spill area, from where it is kept
// for the next reads. (Peeking at the size first and receiving into a fresh
// buffer cost two calls and an allocation per packet.) The spill area is
// only address space until a packet longer than its read reaches it.
ssize_t receive_into(int fd, void* buf, size_t count) {
  thread_local std::unique_ptr<uint8_t[]> spill;
  if (!spill) spill.reset(new uint8_t[kMaxPacket]);
  const size_t direct = std::min(count, kMaxPacket);
  struct iovec parts[2] = {{buf, direct}, {spill.get(), kMaxPacket - direct}};
  struct msghdr message {};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  const ssize_t got = ::recvmsg(fd, &message, MSG_TRUNC);
  if (got <= 0) return got;
  if (static_cast<size_t>(got) > kMaxPacket) {
    // Larger than any packet the device may send: dropped as a device
    // would refuse it, and the reader is told.
    errno = EMSGSIZE;
    return -1;
  }
  if (static_cast<size_t>(got) <= direct) {
    platform::wire::received(fd, buf, static_cast<size_t>(got), nullptr, 0);
    return got;
  }
  platform::wire::received(fd, buf, direct, spill.get(), static_cast<size_t>(got) - direct);
  std::lock_guard<std::mutex> lock(g_nodes_mutex);
  auto it = g_nodes.find(fd);
  if (it != g_nodes.end()) {
    it->second.kept.assign(spill.get(), spill.get() + (static_cast<size_t>(got) - direct));
    it->second.kept_off = 0;
  }
  return static_cast<ssize_t>(direct);
}

// A read of a device node: an injected fault, else the rest of a packet
// that an earlier read left, else the next packet. `is_node` is false (and
// nothing is read) when `fd` is not a device node.
ssize_t node_read(int fd, void* buf, size_t count, bool* is_node) {
  {
    std::lock_guard<std::mutex> lock(g_nodes_mutex);
    auto it = g_nodes.find(fd);
    *is_node = it != g_nodes.end();
    if (!*is_node) return 0;
    Node& node = it->second;
    if (node.read_fault.count > 0) {
      --node.read_fault.count;
      errno = node.read_fault.err;
      return -1;
    }
    if (node.kept_left() > 0) {
      size_t n = std::min(count, node.kept_left());
      std::memcpy(buf, node.kept.data() + node.kept_off, n);
      node.kept_off += n;
      if (node.kept_left() == 0) {
        node.kept.clear();
        node.kept_off = 0;
      }
      return static_cast<ssize_t>(n);
    }
  }
  return receive_into(fd, buf, count);
}

bool has_kept_bytes(int fd) {
  std::lock_guard<std::mutex> lock(g_nodes_mutex);
  auto it = g_nodes.find(fd);
  return it != g_nodes.end() && it->second.kept_left() > 0;
}

// True when the peer has closed and nothing is left to read. A peek reports,
// and thereby clears, an error pending on the socket (ECONNRESET when the
// device closed with our packet unread): it is kept for the next read, which
// would otherwise see a plain end of stream.
bool drained_and_closed(int fd) {
  uint8_t byte;
  const ssize_t n = ::recv(fd, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT);
  if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
    const int err = errno;
    std::lock_guard<std::mutex> lock(g_nodes_mutex);
    auto it = g_nodes.find(fd);
    if (it != g_nodes.end() && it->second.read_fault.count == 0) it->second.read_fault = Fault{err, 1};
  }
  return n == 0;
}

}  // namespace

namespace platform {

namespace {

int open_resolved(const char* path, int flags, mode_t mode) {
  std::string resolved = host::resolve(path);
  {
    auto recording = host::journal::hold();
    const bool existed = recording.owns_lock() && ::access(resolved.c_str(), F_OK) == 0;
    const int fd = ::open(resolved.c_str(), flags | O_CLOEXEC, mode);
    if (fd >= 0 && recording.owns_lock()) {
      const bool writes = (flags & O_ACCMODE) != O_RDONLY;
      host::journal::opened(fd, path, (flags & O_CREAT) != 0 && !existed, (flags & O_TRUNC) != 0 && writes && existed);
    }
    if (fd >= 0 || errno != ENXIO) return fd;
  }
  // open() refuses a socket with ENXIO: a device node of the virtual device
  // is one, and is connected to instead. Files are not stat()ed first: that
  // would make the next write of every file take a fresh fine-grained
  // timestamp, and each fdatasync write the inode too.
  struct stat st;
  if (::stat(resolved.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
    errno = ENXIO;
    return -1;
  }
  int fd = connect_node(resolved);
  if (fd >= 0) {
    std::lock_guard<std::mutex> lock(g_nodes_mutex);
    g_nodes[fd] = Node{};
  }
  if (fd >= 0 && host::journal::enabled()) {
    auto recording = host::journal::hold();
    host::journal::opened(fd, path, false, false);
  }
  return fd;
}

}  // namespace

int open(const char* path, int flags, mode_t mode) {
  const int fd = open_resolved(path, flags, mode);
  const int err = errno;
  wire::opened(path, fd, err);
  errno = err;
  return fd;
}

int close(int fd) {
  wire::closed(fd);
  {
    std::lock_guard<std::mutex> lock(g_nodes_mutex);
    g_nodes.erase(fd);
  }
  auto recording = host::journal::hold();
  host::journal::closed(fd);
  return ::close(fd);
}

ssize_t read(int fd, void* buf, size_t count) {
  bool node = false;
  const ssize_t got = node_read(fd, buf, count, &node);
  if (node && got == 0 && count > 0) wire::hung_up(fd);
  return node ? got : ::read(fd, buf, count);
}

ssize_t pread(int fd, void* buf, size_t count, off_t offset) { return ::pread(fd, buf, count, offset); }

ssize_t write(int fd, const void* buf, size_t count) {
  if (!is_node(fd)) {
    auto recording = host::journal::hold();
    const off_t at = recording.owns_lock() ? ::lseek(fd, 0, SEEK_CUR) : 0;
    const ssize_t n = ::write(fd, buf, count);
    if (n > 0 && at >= 0) host::journal::wrote(fd, at, buf, static_cast<size_t>(n));
    return n;
  }
  if (take_fault(fd, host::FaultOp::Write)) return -1;
  auto recording = host::journal::hold();
  const ssize_t sent = ::send(fd, buf, count, MSG_NOSIGNAL);
  if (sent > 0) host::journal::packet(fd, buf, static_cast<size_t>(sent));
  if (sent > 0) wire::sent(fd, buf, static_cast<size_t>(sent));
  return sent;
}

int poll(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
  int ready_kept = 0;
  for (nfds_t i = 0; i < nfds; ++i) {
    if (fds[i].fd >= 0 && (fds[i].events & POLLIN) && has_kept_bytes(fds[i].fd)) ++ready_kept;
  }
  int result = ::poll(fds, nfds, ready_kept > 0 ? 0 : timeout_ms);
  if (result < 0) return result;
  int ready = 0;
  for (nfds_t i = 0; i < nfds; ++i) {
    pollfd& entry = fds[i];
    if (entry.fd < 0 || !is_node(entry.fd)) {
      if (entry.revents != 0) ++ready;
      continue;
    }
    if ((entry.events & POLLIN) && has_kept_bytes(entry.fd)) {
      entry.revents = static_cast<short>((entry.revents | POLLIN) & ~POLLHUP);
    } else if ((entry.revents & POLLHUP) && drained_and_closed(entry.fd)) {
      // A closed peer shows as a hang-up alone, never as something to read.
      entry.revents = POLLHUP;
      wire::hung_up(entry.fd);
    }
    if (entry.revents != 0) ++ready;
  }
  return ready;
}

int ioctl(int fd, unsigned long request, void* arg) {
  if (!is_node(fd)) return ::ioctl(fd, request, arg);
  return node_ioctl(fd, request, arg);
}

int pipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC); }

int fcntl(int fd, int cmd, int arg) {
  const int result = ::fcntl(fd, cmd, arg);
  if (result >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC)) {
    std::lock_guard<std::mutex> lock(g_nodes_mutex);
    auto it = g_nodes.find(fd);
    if (it != g_nodes.end()) {
      Node copy = it->second;  // the new descriptor reads the same packet stream
      g_nodes[result] = std::move(copy);
    }
    wire::duplicated(fd, result);
  }
  if (result >= 0 && (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) && host::journal::enabled()) {
    auto recording = host::journal::hold();
    host::journal::duplicated(fd, result);
  }
  return result;
}

uint32_t user_word(void* p) {
  if (p == nullptr) return 0;
  if (t_user_words.size() >= 16) t_user_words.clear();  // words never used by an ioctl
  t_user_words.push_back(p);
  return static_cast<uint32_t>(t_user_words.size());
}

}  // namespace platform

namespace platform::host {

void inject_fault(int fd, FaultOp op, int err, int count) {
  std::lock_guard<std::mutex> lock(g_nodes_mutex);
  auto it = g_nodes.find(fd);
  if (it == g_nodes.end()) return;
  Fault& fault = op == FaultOp::Read ? it->second.read_fault : it->second.write_fault;
  fault.err = err;
  fault.count = count;
}

}  // namespace platform::host
