// The device side of one virtual device node: a SOCK_SEQPACKET socket that
// the daemon's open() connects to. Each accepted connection first receives
// the 32-bit open status; 0 makes it the daemon's open descriptor.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/capture/session_capture.h"

namespace marlo::sim {

class DeviceNode {
 public:
  // Listens at `socket_path` (removing a stale socket first).
  explicit DeviceNode(std::string socket_path);
  ~DeviceNode();
  DeviceNode(const DeviceNode&) = delete;
  DeviceNode& operator=(const DeviceNode&) = delete;

  const std::string& path() const { return path_; }
  int listen_fd() const { return listen_fd_; }

  // The next `count` opens fail with `err` (EBUSY for a busy device).
  void fail_opens(int count, int err);

  // Every open fails with `err` until it is set back to 0 (a channel whose
  // remote end is down).
  void refuse_opens(int err) { refusal_errno_ = err; }

  // Waits up to timeout_ms for the daemon to open the node and returns the
  // connection (owned by the caller), or -1. Failed opens are answered and
  // closed here.
  int accept_open(int timeout_ms);

  // Number of connections accepted so far, failed opens included.
  int opens_seen() const { return opens_seen_.load(); }

  // The stream of a connection accept_open returned: the connections of
  // the node numbered from 1 in the order they were opened, refused opens
  // included (the capture's connection identity). 0 for an unknown one.
  uint32_t stream_of(int fd) const;
  // Forgets a connection that is about to be closed (its number may be
  // reused by the next one).
  void forget(int fd);

  // Records every open's outcome on `interface` of `capture`; set before the
  // node is served, fixed afterwards.
  void set_capture(std::shared_ptr<SessionCapture> capture, CaptureInterface interface) {
    capture_ = std::move(capture);
    capture_interface_ = interface;
  }
  SessionCapture* capture() const { return capture_.get(); }
  CaptureInterface capture_interface() const { return capture_interface_; }

 private:
  std::string path_;
  int listen_fd_ = -1;
  std::atomic<int> fail_count_{0};
  std::atomic<int> fail_errno_{0};
  std::atomic<int> opens_seen_{0};
  std::atomic<int> refusal_errno_{0};
  std::shared_ptr<SessionCapture> capture_;
  CaptureInterface capture_interface_ = CaptureInterface::Control;
  mutable std::mutex streams_mutex_;
  uint32_t last_stream_ = 0;         // guarded by streams_mutex_
  std::map<int, uint32_t> streams_;  // descriptor -> stream, guarded by streams_mutex_
};

// Sends one packet; true when it was sent whole.
bool send_packet(int fd, const void* data, size_t length);
// Receives one packet of at most `capacity` bytes within timeout_ms; its
// length, 0 when the peer closed, -1 on time-out or error.
long receive_packet(int fd, void* data, size_t capacity, int timeout_ms);

// The largest packet a device node carries.
constexpr size_t kMaxPacket = 1 << 20;

// Receives one whole packet of any size up to kMaxPacket into `packet`
// within timeout_ms; its length, 0 when the peer closed, -1 on time-out or
// error (a larger packet is dropped and reported as -1).
long receive_message(int fd, std::vector<uint8_t>& packet, int timeout_ms);

}  // namespace marlo::sim
