// One device node served on a thread of its own: accepts the daemon's opens
// (with the open-status handshake of DeviceNode), receives its packets and
// hands them to the subclass, which answers on the same thread. A tick every
// few milliseconds lets the subclass run its own timers.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/answer_fault.h"
#include "sim/device_node.h"
#include "sim/read_fault.h"
#include "sim/wire.h"

namespace marlo::sim {

class ChannelServer {
 public:
  explicit ChannelServer(std::string socket_path);
  virtual ~ChannelServer();
  ChannelServer(const ChannelServer&) = delete;
  ChannelServer& operator=(const ChannelServer&) = delete;

  void start();
  // Stops the thread and closes every connection; subclasses call it first
  // in their destructor so that no handler runs on a half-destroyed object.
  void stop();

  DeviceNode& node() { return node_; }
  // Hangs up every open connection (the remote end went down); safe from
  // any thread. The daemon sees POLLHUP, then reads of 0.
  void hang_up_all();
  int open_connections() const;
  // Returns once the loop thread has handled every packet the daemon had
  // written before the call, or after `limit`. A host command that follows a
  // write on the daemon's side (the session's last answer, then the unload)
  // finds the write delivered, as the link delivers it. Not on the loop
  // thread itself, nor holding a lock a handler takes.
  void deliver_pending(std::chrono::milliseconds limit);
  // Called on the channel's thread with every packet received, before it is
  // handled; when it returns true the packet is dropped unhandled (the
  // co-processor went down with it). Fault injection at packet boundaries.
  void set_packet_observer(std::function<bool()> observer);
  // Breaks the daemon's next read on this channel as `fault` says, at the
  // `packet`th packet the co-processor sends from now on (for a read error,
  // receives); `on_strike` runs on the channel's thread as it strikes. The
  // channel stays broken until end_read_fault().
  void arm_read_fault(ReadFault fault, int packet, std::function<void()> on_strike = {}) {
    read_fault_.arm(fault, packet, std::move(on_strike));
  }
  // The co-processor went down: a fault that struck is over.
  void end_read_fault() { read_fault_.end(); }
  bool read_fault_struck() const { return read_fault_.struck(); }
  // Co-processor faults, from any thread. Arms `fault` for the channel's next
  // answers (sim/answer_fault.h); it replaces a fault not yet applied.
  void arm_answer_fault(AnswerFault fault);
  // Half-closes every open connection: the co-processor's end sends nothing
  // more but does not hang up, so the daemon reads end-of-stream for ever
  // and sees no POLLHUP. New connections are whole again.
  void half_close_all();
  // Sends `packet` on the newest open connection as if the co-processor had
  // sent it unasked; false when no connection is open.
  bool inject(const Bytes& packet);
  // Records the node's traffic on `interface` of `capture`; call before start().
  void set_capture(std::shared_ptr<SessionCapture> capture, CaptureInterface interface) {
    node_.set_capture(std::move(capture), interface);
  }

 protected:
  virtual void on_open(int /*fd*/) {}
  virtual void on_packet(int fd, const Bytes& packet) = 0;
  virtual void on_closed(int /*fd*/) {}
  virtual void on_tick() {}

  // Loop thread only. A packet sent while a read fault strikes is broken as
  // the fault says.
  bool send(int fd, const Bytes& packet);
  void hang_up(int fd);
  bool read_fault_breaks_next_send() const { return read_fault_.breaks_next_send(); }
  // The most recently opened connection still open, or -1.
  int newest_connection() const;

 private:
  void run();
  // Reads one packet of `fd` and hands it on, or closes `fd` at its end;
  // false once `fd` is closed.
  bool serve_connection(int fd, short revents, Bytes& packet);
  // After a read fault: the answer fault armed by arm_answer_fault, if any.
  bool send_shaped(int fd, const Bytes& packet);
  bool send_unbroken(int fd, const Bytes& packet);
  void close_connection(int fd);
  // Records that the device hangs `fd` up, once per connection.
  void record_hang_up(int fd);
  // While capturing: held around a send and its record, and around a
  // hang-up and its record, so that the file order is the order the daemon
  // sees (a packet is recorded and sent whole before or after a hang-up,
  // never across it). Taken before connections_mutex_. Not taken otherwise.
  std::unique_lock<std::mutex> lock_for_capture();

  DeviceNode node_;
  int wake_[2] = {-1, -1};
  std::atomic<bool> running_{false};
  std::atomic<uint64_t> passes_{0};  // loop iterations completed
  std::thread thread_;               // owned by the thread that starts and stops the server
  // The loop thread's id, for the other threads that ask whether they are it:
  // they may ask while start() is still assigning thread_.
  std::atomic<std::thread::id> loop_id_{};
  mutable std::mutex connections_mutex_;
  std::vector<int> connections_;  // in order of opening
  std::vector<int> hung_up_;      // connections the device hung up, guarded by connections_mutex_
  std::vector<int> silent_;       // connections an answer fault silenced, guarded by connections_mutex_
  std::mutex fault_mutex_;        // taken before connections_mutex_
  AnswerFault answer_fault_;      // guarded by fault_mutex_
  std::mutex capture_mutex_;
  ReadFaultSwitch read_fault_;
  std::mutex observer_mutex_;
  std::function<bool()> observer_;  // guarded by observer_mutex_
};

}  // namespace marlo::sim
