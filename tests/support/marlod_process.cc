#include "support/marlod_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace marlo::test {
namespace {

// Reads the JSON string starting at text[pos] (the opening quote).
std::string json_string(const std::string& text, size_t& pos) {
  std::string out;
  for (++pos; pos < text.size() && text[pos] != '"'; ++pos) {
    char c = text[pos];
    if (c != '\\' || pos + 1 >= text.size()) {
      out += c;
      continue;
    }
    char escaped = text[++pos];
    switch (escaped) {
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case 'u': out += static_cast<char>(std::stoi(text.substr(pos + 1, 4), nullptr, 16)); pos += 4; break;
      default: out += escaped;
    }
  }
  ++pos;
  return out;
}

bool parse_entry(const std::string& line, JsonLogEntry* entry) {
  size_t prio = line.find("\"prio\": ");
  size_t tag = line.find("\"tag\": ");
  size_t msg = line.find("\"msg\": ");
  if (prio == std::string::npos || tag == std::string::npos || msg == std::string::npos) return false;
  entry->prio = std::atoi(line.c_str() + prio + 8);
  size_t pos = tag + 7;
  entry->has_tag = line[pos] == '"';
  if (entry->has_tag) entry->tag = json_string(line, pos);
  pos = msg + 7;
  entry->msg = json_string(line, pos);
  return true;
}

}  // namespace

std::string build_dir() {
  const char* dir = std::getenv("MARLO_BUILD_DIR");
  return dir != nullptr ? dir : "build";
}

MarlodProcess::MarlodProcess(const std::string& root, const std::string& log_file, double time_scale,
                             const std::vector<std::string>& args)
    : log_file_(log_file) {
  std::string binary = build_dir() + "/marlod";
  std::string stderr_file = log_file + ".stderr";
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::setenv("MARLO_ROOT", root.c_str(), 1);
    ::setenv("MARLO_LOG_FILE", log_file.c_str(), 1);
    ::setenv("MARLO_TIME_SCALE", std::to_string(time_scale).c_str(), 1);
    if (FILE* err = std::freopen(stderr_file.c_str(), "w", stderr)) (void)err;
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    ::execv(binary.c_str(), argv.data());
    std::_Exit(127);
  }
}

MarlodProcess::~MarlodProcess() { kill(); }

int MarlodProcess::wait_exit(std::chrono::milliseconds timeout) {
  int status = -1;
  bool ended = wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout);
  if (!ended) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void MarlodProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::vector<JsonLogEntry> MarlodProcess::log() const {
  std::vector<JsonLogEntry> entries;
  std::ifstream in(log_file_);
  std::string line;
  JsonLogEntry entry;
  while (std::getline(in, line)) {
    if (parse_entry(line, &entry)) entries.push_back(entry);
  }
  return entries;
}

bool MarlodProcess::wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const {
  return wait_until(
      [&] {
        for (const auto& entry : log()) {
          if (entry.msg.find(text) != std::string::npos) return true;
        }
        return false;
      },
      timeout);
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace marlo::test
