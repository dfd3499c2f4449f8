// What the DFU and misc-data tests share: a callback that records every
// report (and every handed-over DFU state, as a pseudo-report).
#pragma once

#include <algorithm>
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
  void onDFUStateRecived(DFUState state) override { add("<state " + std::to_string(state) + ">", STATUS_INFO); }

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

}  // namespace marlo::test
