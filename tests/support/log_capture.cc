// What LogCapture collected; the capture itself is log_capture_host.cc or
// log_capture_device.cc, after the backend.
#include "support/log_capture.h"

namespace marlo::test {

void LogCapture::add(int prio, const char* tag, const char* msg) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(LogEntry{prio, tag != nullptr ? tag : "", msg});
}

std::vector<LogEntry> LogCapture::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

int LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& entry : entries_) n += entry.msg.find(text) != std::string::npos;
  return n;
}

}  // namespace marlo::test
