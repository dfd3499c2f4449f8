// Follows the co-processor's restarts: listens on the kernel uevent socket in
// a detached thread of its own for the control device's MARLO_EVENT values,
// keeps "vendor.marlo.boot_complete" in step and tells the daemon of each
// power-down (1) and power-up (4).
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

  // The listener thread's body; returns when the socket fails.
  void marloSSREventListener();

  // Handles one received uevent message of `length` bytes held in a buffer
  // of at least kMaxMessage + 2 bytes.
  void handleMessage(char* buffer, ssize_t length);

  int32_t lastEvent() const { return last_event_.load(); }

  static constexpr size_t kMaxMessage = 1024;

 private:
  void handleEvent(int32_t event);

  MarloDaemon* daemon_;
  std::atomic<int32_t> last_event_{0};
};
