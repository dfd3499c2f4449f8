// Runs build/marlod as a separate process against a device root, as an
// outside harness would, and reads its JSON log.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace marlo::test {

struct JsonLogEntry {
  int prio = 0;
  bool has_tag = false;
  std::string tag;
  std::string msg;
};

// The build directory ($MARLO_BUILD_DIR, set by ctest), where marlod lives.
std::string build_dir();

class MarlodProcess {
 public:
  // Starts `build_dir()/marlod` with MARLO_ROOT=root, MARLO_TIME_SCALE and
  // MARLO_LOG_FILE=<log_file>; stderr goes to <log_file>.stderr.
  MarlodProcess(const std::string& root, const std::string& log_file, double time_scale = 0.01,
                const std::vector<std::string>& args = {});
  ~MarlodProcess();  // kills the daemon if it still runs
  MarlodProcess(const MarlodProcess&) = delete;
  MarlodProcess& operator=(const MarlodProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits for the process to end; its exit status, or -1 on time-out.
  int wait_exit(std::chrono::milliseconds timeout);
  void kill();

  std::vector<JsonLogEntry> log() const;
  // Polls the log until an entry's message contains `text`.
  bool wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const;

 private:
  std::string log_file_;
  pid_t pid_ = -1;
};

// Polls `condition` every few milliseconds until it holds or time runs out.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace marlo::test
