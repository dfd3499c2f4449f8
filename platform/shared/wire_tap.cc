#include "platform/wire_tap.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace platform::wire {

namespace {

std::atomic<Observer*> g_observer{nullptr};

// What each descriptor below kTrackedFds is: 0 nothing, else the node + 1 in
// the low bits, and two marks of its connection's life.
constexpr int kTrackedFds = 1024;
constexpr uint8_t kNodeBits = 0x0f;
constexpr uint8_t kHungUp = 0x10;  // "closed by co-processor" already recorded
constexpr uint8_t kMoved = 0x20;   // duplicated to another descriptor: its close is not the connection's
std::atomic<uint8_t> g_fds[kTrackedFds];

constexpr const char* kPaths[kNodes] = {"/dev/marlo_com_dev", "/dev/glink_pkt_marlo_dfu",
                                        "/dev/glink_pkt_marlo_custom_data", "/dev/glink_pkt_marlo_rma", "/dev/uevent"};

bool tracked(int fd) { return fd >= 0 && fd < kTrackedFds; }

// The node behind `fd` (false when none), and its marks.
bool node_of(int fd, Node* node, uint8_t* marks = nullptr) {
  if (!tracked(fd)) return false;
  const uint8_t entry = g_fds[fd].load(std::memory_order_relaxed);
  if ((entry & kNodeBits) == 0) return false;
  *node = static_cast<Node>((entry & kNodeBits) - 1);
  if (marks != nullptr) *marks = entry & ~kNodeBits;
  return true;
}

// The observer, or nullptr: one relaxed load when there is none; the fence
// pairs with observe()'s release store when there is one.
Observer* current() {
  Observer* o = g_observer.load(std::memory_order_relaxed);
  if (o != nullptr) std::atomic_thread_fence(std::memory_order_acquire);
  return o;
}

void deliver(Observer* o, Node node, Direction direction, const void* head, size_t head_length, const void* rest,
             size_t rest_length, size_t original) {
  o->message(Message{node, direction, static_cast<const uint8_t*>(head), head_length, static_cast<const uint8_t*>(rest),
                     rest_length, original});
}

}  // namespace

const char* node_path(Node node) { return kPaths[static_cast<int>(node)]; }

void observe(Observer* observer) { g_observer.store(observer, std::memory_order_release); }
bool observing() { return g_observer.load(std::memory_order_relaxed) != nullptr; }

void opened(const char* path, int fd, int open_errno) {
  int index = 0;
  while (index < kNodes - 1 && std::strcmp(path, kPaths[index]) != 0) ++index;
  if (index == kNodes - 1) return;  // not a device node (the uevent socket is not opened by path)
  const Node node = static_cast<Node>(index);
  if (tracked(fd)) g_fds[fd].store(static_cast<uint8_t>(index + 1), std::memory_order_relaxed);
  Observer* o = current();
  if (o == nullptr) return;
  if (fd >= 0) {
    o->life(node, Direction::Outbound, "open");
    return;
  }
  char comment[40];
  std::snprintf(comment, sizeof(comment), "open refused errno %d", open_errno);
  o->life(node, Direction::Outbound, comment);
}

void closed(int fd) {
  Node node;
  uint8_t marks = 0;
  if (!node_of(fd, &node, &marks)) return;
  g_fds[fd].store(0, std::memory_order_relaxed);
  Observer* o = current();
  if (o != nullptr && (marks & kMoved) == 0) o->life(node, Direction::Outbound, "closed by daemon");
}

void duplicated(int from, int to) {
  Node node;
  if (!node_of(from, &node) || !tracked(to)) return;
  g_fds[to].store(g_fds[from].load(std::memory_order_relaxed) & ~kMoved, std::memory_order_relaxed);
  g_fds[from].fetch_or(kMoved, std::memory_order_relaxed);
}

bool is_node(int fd, Node node) {
  Node found;
  return node_of(fd, &found) && found == node;
}

void sent(int fd, const void* data, size_t length) {
  Observer* o = current();
  Node node;
  if (o == nullptr || !node_of(fd, &node) || node == Node::Control) return;
  deliver(o, node, Direction::Outbound, data, length, nullptr, 0, length);
}

void received(int fd, const void* head, size_t head_length, const void* rest, size_t rest_length) {
  Observer* o = current();
  Node node;
  if (o == nullptr || !node_of(fd, &node) || node == Node::Control) return;
  deliver(o, node, Direction::Inbound, head, head_length, rest, rest_length, head_length + rest_length);
}

void hung_up(int fd) {
  Observer* o = current();
  Node node;
  uint8_t marks = 0;
  if (o == nullptr || !node_of(fd, &node, &marks) || (marks & kHungUp) != 0) return;
  if ((g_fds[fd].fetch_or(kHungUp, std::memory_order_relaxed) & kHungUp) != 0) return;
  o->life(node, Direction::Inbound, "closed by co-processor");
}

void control(int fd, Direction direction, const void* data, size_t length) {
  Observer* o = current();
  Node node;
  if (o == nullptr || !node_of(fd, &node) || node != Node::Control) return;
  deliver(o, node, direction, data, length, nullptr, 0, length);
}

void uevent(const void* data, size_t captured, size_t original) {
  Observer* o = current();
  if (o == nullptr) return;
  deliver(o, Node::Uevent, Direction::Inbound, data, captured, nullptr, 0, original);
}

}  // namespace platform::wire
