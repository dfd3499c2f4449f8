// The wire as the daemon sees it: every message it sends or receives on the
// control device, the three packet channels and the uevent socket, handed to
// an observer (the capture recorder) in the byte form the virtual device's
// own capture records:
//   control device  requests  u32 request | 32-byte block | data (the reset's word)
//                   answers   i32 result | i32 errno | 32-byte block | reply (the version record)
//   channels        one packet per message
//   uevents         one datagram per message
// and the life of each device-node connection as a zero-length message with
// a comment: "open", "open refused errno N", "closed by co-processor",
// "closed by daemon".
//
// Both backends call the taps below from the seam's own calls, so daemon
// code knows nothing of them. With no observer a tap costs one relaxed
// atomic load; opens and closes of device nodes are always tracked, so an
// observer installed mid-session knows every descriptor already open.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::wire {

enum class Node : uint8_t { Control = 0, Dfu = 1, Misc = 2, Rma = 3, Uevent = 4 };
constexpr int kNodes = 5;
// The device path of each node (the if_name of a capture is it without the
// leading '/').
const char* node_path(Node node);

enum class Direction : uint8_t { Inbound = 1, Outbound = 2 };  // to the daemon / from it

// A message in up to two contiguous parts (a packet received partly into
// the caller's buffer and partly into a spill area). `original` is the
// message's true length: more than the parts hold when the receive buffer
// cut a datagram.
struct Message {
  Node node;
  Direction direction;
  const uint8_t* head;
  size_t head_length;
  const uint8_t* rest;
  size_t rest_length;
  size_t original;

  size_t length() const { return head_length + rest_length; }
  uint8_t at(size_t i) const { return i < head_length ? head[i] : rest[i - head_length]; }
};

class Observer {
 public:
  // Called on the thread that sends or receives: must not block.
  virtual void message(const Message& message) = 0;
  virtual void life(Node node, Direction direction, const char* comment) = 0;

 protected:
  ~Observer() = default;
};

// Installs `observer` (nullptr: none). An observer must outlive every call
// that may have loaded it: the capture recorder lives for the process.
void observe(Observer* observer);
bool observing();

bool is_node(int fd, Node node);

// Taps, called by the backends.
void opened(const char* path, int fd, int open_errno);
void closed(int fd);
void duplicated(int from, int to);
void sent(int fd, const void* data, size_t length);
void received(int fd, const void* head, size_t head_length, const void* rest, size_t rest_length);
// The connection's peer has gone: recorded once per connection.
void hung_up(int fd);
// A control-device request or answer, whole.
void control(int fd, Direction direction, const void* data, size_t length);
void uevent(const void* data, size_t captured, size_t original);

}  // namespace platform::wire
