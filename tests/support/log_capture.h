// Collects the Android log entries made while the object lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace marlo::test {

struct LogEntry {
  int prio;
  std::string tag;
  std::string msg;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogEntry> entries() const;
  // Number of entries whose message contains `text`.
  int count(const std::string& text) const;
  bool contains(const std::string& text) const { return count(text) > 0; }

 private:
  // Called by the backend's log for each entry while the object lives.
  void add(int prio, const char* tag, const char* msg);

  mutable std::mutex mutex_;
  std::vector<LogEntry> entries_;
};

}  // namespace marlo::test
