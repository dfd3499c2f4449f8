// The process-wide kernel wakelock "MARLODAEMON_WAKEUP", reference-counted:
// the kernel lock is written on the count's 0 -> positive transition and
// released on its positive -> 0 transition, so the application processor
// stays awake while any channel operation holds a reference.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/thread_annotations.h"
#include "platform/unique_fd.h"

class client_wakelock {
 public:
  // One reference, taken when it is made and given back when it is released
  // or destroyed, so that no way out of an operation can keep it. Move-only;
  // a default-made or moved-from one holds nothing.
  class reference {
   public:
    reference() = default;
    explicit reference(client_wakelock* wakelock) : _wakelock(wakelock) {
      if (_wakelock != nullptr) _wakelock->get_n_locks(1);
    }
    ~reference() { release(); }
    reference(reference&& other) noexcept : _wakelock(std::exchange(other._wakelock, nullptr)) {}
    reference& operator=(reference&& other) noexcept {
      if (this != &other) {
        release();
        _wakelock = std::exchange(other._wakelock, nullptr);
      }
      return *this;
    }
    reference(const reference&) = delete;
    reference& operator=(const reference&) = delete;

    explicit operator bool() const { return _wakelock != nullptr; }
    // Gives the reference back now; nothing is held after.
    void release() {
      if (client_wakelock* wakelock = std::exchange(_wakelock, nullptr)) wakelock->put_n_locks(1);
    }

   private:
    client_wakelock* _wakelock = nullptr;
  };

  // The single instance of the process, created on first call and never
  // destroyed.
  static client_wakelock* get_instance();

  // The process uses get_instance(); an instance constructed directly holds
  // its own descriptors of the kernel files (used to check the kernel writes).
  client_wakelock();
  client_wakelock(const client_wakelock&) = delete;
  client_wakelock& operator=(const client_wakelock&) = delete;

  void get_n_locks(int count) EXCLUDES(_mutex);
  void put_n_locks(unsigned count) EXCLUDES(_mutex);
  // The references held now.
  uint32_t references() EXCLUDES(_mutex);

 private:
  // Write the lock name to the kernel.
  void acquire() REQUIRES(_mutex);
  void release() REQUIRES(_mutex);

  platform::mutex _mutex;
  uint32_t _accu_count GUARDED_BY(_mutex) = 0;
  // The kernel files, opened by the constructor; -1 when the open failed.
  platform::unique_fd _lock_fd GUARDED_BY(_mutex);
  platform::unique_fd _unlock_fd GUARDED_BY(_mutex);
  bool _held GUARDED_BY(_mutex) = false;
};
