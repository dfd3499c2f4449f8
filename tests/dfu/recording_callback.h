// A marlo_fw_updater::Callback that records every report, for the DFU and
// misc-data tests; reports may arrive on the transport's reader thread.
#pragma once

#include <chrono>
#include <condition_variable>
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
  void onDFUStateRecived(DFUState state) override {
    std::lock_guard<std::mutex> lock(mutex_);
    states_.push_back(state);
  }

  std::vector<Report> reports() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reports_;
  }
  std::vector<DFUState> states() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return states_;
  }
  int count(const std::string& message, Status status) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& r : reports_) n += (r.first == message && r.second == status);
    return n;
  }
  // Waits until the report has been made at least once.
  bool wait_for(const std::string& message, Status status, int timeout_ms = 3000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      for (const auto& r : reports_)
        if (r.first == message && r.second == status) return true;
      return false;
    });
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
  std::vector<DFUState> states_;
};

}  // namespace marlo::test
