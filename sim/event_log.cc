#include "sim/event_log.h"

namespace marlo::sim {

void EventLog::add(std::string source, std::string text) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Bounded: a long-running serve keeps the most recent events.
  if (events_.size() >= 100000) events_.erase(events_.begin(), events_.begin() + 50000);
  events_.push_back({std::chrono::steady_clock::now(), std::move(source), std::move(text)});
}

std::vector<DeviceEvent> EventLog::since(size_t& cursor) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (cursor > events_.size()) cursor = 0;
  std::vector<DeviceEvent> out(events_.begin() + static_cast<long>(cursor), events_.end());
  cursor = events_.size();
  return out;
}

size_t EventLog::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

}  // namespace marlo::sim
