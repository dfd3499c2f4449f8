// Follows the co-processor's restarts: listens on the kernel uevent socket in
// a thread of its own for the control device's MARLO_EVENT values, keeps
// "vendor.marlo.boot_complete" in step and tells the daemon of each
// power-down (1) and power-up (4). A receive that reports an overrun
// (ENOBUFS: the socket dropped uevents) does not end the listener: it re-reads
// the co-processor's state and acts as the lost power event would have.
//
// The handler owns its listener thread: the constructor starts it and the
// destructor stops it through a wake-up pipe and joins it. The daemon keeps
// its handler for the life of the process; tests destroy theirs.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "platform/unique_fd.h"

class MarloDaemon;

class SSRHandler {
 public:
  // Starts the listener thread. The daemon may be null; it outlives the
  // handler.
  explicit SSRHandler(MarloDaemon* daemon);
  // Stops the listener (a message being handled is finished first) and
  // joins it.
  ~SSRHandler();
  SSRHandler(const SSRHandler&) = delete;
  SSRHandler& operator=(const SSRHandler&) = delete;

  // The listener thread's body; returns when a receive fails for any reason
  // but an overrun, or when the handler is being destroyed.
  void marloSSREventListener();

  // After an overrun: compares the co-processor's remote-processor state
  // with the last power event and, where they differ, acts as the missing
  // power-down or power-up event. A running co-processor believed running
  // may have restarted unseen: a download whose channel was lost is taken
  // up. Listener thread.
  void recoverLostEvents();

  // Handles one received uevent message of `length` bytes held in a buffer
  // of at least kMaxMessage + 2 bytes.
  void handleMessage(char* buffer, ssize_t length);

  int32_t lastEvent() const { return last_event_.load(); }

  static constexpr size_t kMaxMessage = 1024;

 private:
  void handleEvent(int32_t event);
  // Waits until `socket` has something to receive (true) or the destructor
  // asks the listener to end (false). Listener thread.
  bool waitForMessage(int socket);

  MarloDaemon* const daemon_;
  // Written by the listener thread, read by any.
  std::atomic<int32_t> last_event_{0};
  // The last power event acted upon (1 or 4), 0 before the first one.
  // Listener thread.
  std::atomic<int32_t> last_power_event_{0};
  // The wake-up pipe: a byte written by the destructor ends the listener.
  // Made before the thread starts, closed after it has been joined.
  platform::unique_fd wakeup_read_;
  platform::unique_fd wakeup_write_;
  std::thread listener_;  // started last, once the fields above exist
};
