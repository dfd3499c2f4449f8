#include "sim/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

extern char** environ;

namespace marlo::sim {

std::vector<std::string> emulator_from_environment() {
  std::vector<std::string> words;
  const char* value = std::getenv("MARLO_EMULATOR");
  std::istringstream in(value != nullptr ? value : "");
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

bool DaemonProcess::start(std::string* error) {
  if (::access(settings_.executable.c_str(), X_OK) != 0) {
    *error = settings_.executable + " is not an executable (build it with: cmake --build build --target marlod)";
    return false;
  }
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    if (entry.rfind("MARLO_ROOT=", 0) == 0 || entry.rfind("MARLO_LOG_FILE=", 0) == 0 ||
        entry.rfind("MARLO_TIME_SCALE=", 0) == 0) {
      continue;
    }
    env.push_back(entry);
  }
  env.push_back("MARLO_ROOT=" + settings_.root);
  if (!settings_.log_file.empty()) env.push_back("MARLO_LOG_FILE=" + settings_.log_file);
  env.push_back("MARLO_TIME_SCALE=" + std::to_string(settings_.time_scale));
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<std::string> command = settings_.launcher;
  command.push_back(settings_.executable);
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  const std::string& program = command.front();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (settings_.stdin_closed) {
    posix_spawn_file_actions_addclose(&actions, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  std::string out = settings_.stderr_file.empty() ? "/dev/null" : settings_.stderr_file;
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  int rc = posix_spawnp(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    *error = "cannot start " + program + ": " + std::strerror(rc);
    return false;
  }
  return true;
}

void DaemonProcess::kill() {
  if (pid_ <= 0) return;
  int status;
#ifdef MARLO_COVERAGE
  // A coverage build's daemon writes its counts when asked to end by
  // SIGTERM; it is given a second to do so.
  ::kill(pid_, SIGTERM);
  for (int i = 0; i < 100; ++i) {
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    ::usleep(10000);
  }
#endif
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

bool DaemonProcess::alive(int* status) {
  if (pid_ <= 0) return false;
  int st = 0;
  pid_t r = ::waitpid(pid_, &st, WNOHANG);
  if (r == 0) return true;
  if (status != nullptr) *status = st;
  pid_ = -1;
  return false;
}

std::string default_marlod_path() {
  std::error_code ec;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return "marlod";
  return (self.parent_path() / "marlod").string();
}

bool log_contains(const std::string& log_file, const std::string& text) {
  std::ifstream in(log_file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::unique_ptr<DaemonProcess> start_built_marlod(const std::string& root, int start, double time_scale,
                                                  std::string* log_file, std::string* error) {
  const char* build = std::getenv("MARLO_BUILD_DIR");
  const std::string marlod = std::string(build != nullptr ? build : ".") + "/marlod";
  if (::access(marlod.c_str(), X_OK) != 0) {
    *error = marlod + " is not built";
    return nullptr;
  }
  const std::string base = root + "/sim/marlod-" + std::to_string(start);
  *log_file = base + ".log";
  auto daemon = std::make_unique<DaemonProcess>(DaemonSettings{marlod, root, *log_file, base + ".stderr", time_scale});
  if (!daemon->start(error)) return nullptr;
  return daemon;
}

}  // namespace marlo::sim
