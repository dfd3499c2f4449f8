// Polls a condition for tests that watch another thread or process.
#pragma once

#include <chrono>
#include <thread>

namespace marlo::test {

// True once `condition` holds; false when `timeout` passes first.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace marlo::test
