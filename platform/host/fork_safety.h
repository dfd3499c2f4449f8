// Process-wide locks of the host backend that a fork never leaves held.
//
// A test may fork while another of its threads is inside the backend (a
// transport's reader reading its channel, a thread writing a file); the
// child then uses the backend itself. Each such lock is taken before the
// fork and given back on both sides, as the C library does for its own.
#pragma once

#include <pthread.h>

#include <mutex>

namespace platform::host {

template <std::mutex& kLock>
bool keep_unlocked_across_fork() {
  return ::pthread_atfork([] { kLock.lock(); }, [] { kLock.unlock(); }, [] { kLock.unlock(); }) == 0;
}

}  // namespace platform::host
