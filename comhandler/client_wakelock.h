// The process-wide kernel wakelock "MARLODAEMON_WAKEUP", reference-counted:
// the kernel lock is written on the count's 0 -> positive transition and
// released on its positive -> 0 transition, so the application processor
// stays awake while any channel operation holds a reference.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

class client_wakelock {
 public:
  // The single instance of the process, created on first call and never
  // destroyed.
  static client_wakelock* get_instance();

  // The process uses get_instance(); an instance constructed directly holds
  // its own descriptors of the kernel files (used to check the kernel writes).
  client_wakelock();
  ~client_wakelock();
  client_wakelock(const client_wakelock&) = delete;
  client_wakelock& operator=(const client_wakelock&) = delete;

  void get_n_locks(int count);
  void put_n_locks(unsigned count);
  // The references held now.
  uint32_t references();

 private:
  // Write the lock name to the kernel; called with the mutex held.
  void acquire();
  void release();

  uint32_t _accu_count = 0;
  std::mutex _mutex;
  std::condition_variable _acquired;  // notified on each acquisition
  int _lock_fd = -1;
  int _unlock_fd = -1;
  bool _held = false;
};
