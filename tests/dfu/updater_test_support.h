// What the DFU and misc-data tests share: a callback that records every
// report (and every handed-over DFU state, as a pseudo-report), and the
// little-endian words of the packets the tests exchange with the daemon.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "fwupdater/marlo_fw_updater.h"

namespace marlo::test {

class RecordingCallback : public marlo_fw_updater::Callback {
 public:
  using Report = std::pair<std::string, Status>;

  void handleDFUResponse(std::string message, Status status) override { add(std::move(message), status); }
  void handleSHMResponse(std::string message, Status status) override { add(std::move(message), status); }
  void onDFUStateRecived(DFUState state) override { add("<state " + std::to_string(state) + ">", STATUS_INFO); }

  std::vector<Report> reports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }
  int count(const std::string& message, Status status) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(reports_.begin(), reports_.end(), Report(message, status)));
  }
  // Waits until the report has been made.
  bool wait_for(const std::string& message, Status status) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(3),
                             [&] { return std::count(reports_.begin(), reports_.end(), Report(message, status)) > 0; });
  }

 private:
  void add(std::string message, Status status) {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.emplace_back(std::move(message), status);
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Report> reports_;
};

// Little-endian 32-bit words of the packets (the host is little-endian).
inline uint32_t word_at(const std::vector<uint8_t>& b, size_t offset) {
  uint32_t v = 0;
  if (offset + 4 <= b.size()) std::memcpy(&v, &b[offset], 4);
  return v;
}
inline void put_word(std::vector<uint8_t>& b, uint32_t v) {
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
  b.insert(b.end(), p, p + 4);
}

}  // namespace marlo::test
