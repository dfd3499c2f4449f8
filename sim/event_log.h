// What the virtual device did, in order, as short human-readable lines with
// a category. Watchers (the demo, `serve`) follow it through a cursor.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace marlo::sim {

struct DeviceEvent {
  std::chrono::steady_clock::time_point when;
  std::string source;  // "driver", "co-processor", "dfu", "misc", "rma"
  std::string text;
};

class EventLog {
 public:
  void add(std::string source, std::string text);
  // Events after `cursor`; advances it.
  std::vector<DeviceEvent> since(size_t& cursor) const;
  size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::vector<DeviceEvent> events_;
};

}  // namespace marlo::sim
