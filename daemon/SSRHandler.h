// Follows the co-processor's restarts: listens on the kernel uevent socket in
// a detached thread of its own for the control device's MARLO_EVENT values,
// keeps "vendor.marlo.boot_complete" in step and tells the daemon of each
// power-down (1) and power-up (4). A receive that reports an overrun
// (ENOBUFS: the socket dropped uevents) does not end the listener: it re-reads
// the co-processor's state and acts as the lost power event would have.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

class MarloDaemon;

class SSRHandler {
 public:
  // Starts the listener thread; the handler must outlive it (it is never
  // destroyed in the daemon). The daemon may be null.
  explicit SSRHandler(MarloDaemon* daemon);
  SSRHandler(const SSRHandler&) = delete;
  SSRHandler& operator=(const SSRHandler&) = delete;

  // The listener thread's body; returns when a receive fails for any reason
  // but an overrun.
  void marloSSREventListener();

  // After an overrun: compares the co-processor's remote-processor state
  // with the last power event and, where they differ, acts as the missing
  // power-down or power-up event. Listener thread.
  void recoverLostEvents();

  // Handles one received uevent message of `length` bytes held in a buffer
  // of at least kMaxMessage + 2 bytes.
  void handleMessage(char* buffer, ssize_t length);

  int32_t lastEvent() const { return last_event_.load(); }

  static constexpr size_t kMaxMessage = 1024;

 private:
  void handleEvent(int32_t event);

  MarloDaemon* daemon_;
  std::atomic<int32_t> last_event_{0};
  // The last power event acted upon (1 or 4), 0 before the first one.
  std::atomic<int32_t> last_power_event_{0};
};
