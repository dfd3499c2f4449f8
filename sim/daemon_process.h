// marlod as a child process of the virtual device: started with MARLO_ROOT,
// MARLO_LOG_FILE and MARLO_TIME_SCALE, its standard error kept in a file.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace marlo::sim {

// The command prefix in MARLO_EMULATOR, split at blanks: the emulator that
// runs a cross-built marlod (e.g. "qemu-arm -L /"), empty when unset.
std::vector<std::string> emulator_from_environment();

struct DaemonSettings {
  std::string executable;
  std::string root;
  std::string log_file;     // MARLO_LOG_FILE
  std::string stderr_file;  // where its stderr goes
  double time_scale = 1.0;
  bool stdin_closed = false;  // started with standard input closed, not on /dev/null
  // Run as `launcher... executable` (searched on PATH) when not empty.
  std::vector<std::string> launcher = emulator_from_environment();
};

class DaemonProcess {
 public:
  explicit DaemonProcess(DaemonSettings settings) : settings_(std::move(settings)) {}
  ~DaemonProcess() { kill(); }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // False (with `error` set) when it could not be started.
  bool start(std::string* error);
  // SIGKILL, then reaps it.
  void kill();
  // True while the process has not ended; `status` gets its wait status.
  bool alive(int* status = nullptr);
  pid_t pid() const { return pid_; }

 private:
  DaemonSettings settings_;
  pid_t pid_ = -1;
};

// The path of marlod next to this program's executable.
std::string default_marlod_path();

// The test suite's marlod (MARLO_BUILD_DIR/marlod, else ./marlod), started
// against `root` as its `start`th start there: its log in
// root/sim/marlod-<start>.log (put in `log_file`), its standard error beside
// it. Null, with `error` set, when it is not built or does not start.
std::unique_ptr<DaemonProcess> start_built_marlod(const std::string& root, int start, double time_scale,
                                                  std::string* log_file, std::string* error);

// Whether the JSON log file has an entry whose text contains `text`.
bool log_contains(const std::string& log_file, const std::string& text);

}  // namespace marlo::sim
