#include "file_journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <unordered_map>

#include "fork_safety.h"

namespace platform::host::journal {

namespace {

// Guards the journal descriptor, the descriptor table below and the order
// of the records; taken by hold() on whichever thread does file I/O.
std::mutex g_mutex;
[[maybe_unused]] const bool g_mutex_fork_safe = keep_unlocked_across_fork<g_mutex>();
std::unordered_map<int, std::string> g_paths;  // recorded descriptors -> device path
int g_fd = -1;

const char* journal_path() {
  const char* path = std::getenv("MARLO_FILE_JOURNAL");
  return (path != nullptr && *path != '\0') ? path : nullptr;
}

void append(std::string record, const void* data = nullptr, size_t length = 0) {
  if (g_fd < 0) g_fd = ::open(journal_path(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (g_fd < 0) return;
  if (data != nullptr) {
    record.append(static_cast<const char*>(data), length);
    record.push_back('\n');
  }
  const char* at = record.data();
  size_t left = record.size();
  while (left > 0) {
    const ssize_t n = ::write(g_fd, at, left);
    if (n <= 0) return;
    at += n;
    left -= static_cast<size_t>(n);
  }
}

const std::string* path_of(int fd) {
  auto it = g_paths.find(fd);
  return it == g_paths.end() ? nullptr : &it->second;
}

}  // namespace

bool enabled() {
  static const bool on = journal_path() != nullptr;
  return on;
}

std::unique_lock<std::mutex> hold() {
  if (!enabled()) return {};
  return std::unique_lock<std::mutex>(g_mutex);
}

void opened(int fd, const std::string& device_path, bool created, bool truncated) {
  if (!enabled()) return;
  g_paths[fd] = device_path;
  if (created) append("C\t" + device_path + "\n");
  if (truncated) append("T\t" + device_path + "\t0\n");
}

void closed(int fd) {
  if (enabled()) g_paths.erase(fd);
}

void duplicated(int fd, int copy) {
  const std::string* path = enabled() ? path_of(fd) : nullptr;
  if (path == nullptr) return;
  std::string named = *path;  // the insertion may move the entry `path` points into
  g_paths[copy] = std::move(named);
}

void wrote(int fd, off_t offset, const void* data, size_t length) {
  const std::string* path = enabled() ? path_of(fd) : nullptr;
  if (path == nullptr || length == 0) return;
  append("W\t" + *path + "\t" + std::to_string(offset) + "\t" + std::to_string(length) + "\n", data, length);
}

void packet(int fd, const void* data, size_t length) {
  const std::string* path = enabled() ? path_of(fd) : nullptr;
  if (path == nullptr || length == 0) return;
  append("P\t" + *path + "\t" + std::to_string(length) + "\n", data, length);
}

void truncated(int fd, off_t length) {
  const std::string* path = enabled() ? path_of(fd) : nullptr;
  if (path != nullptr) append("T\t" + *path + "\t" + std::to_string(length) + "\n");
}

void synced(int fd) {
  const std::string* path = enabled() ? path_of(fd) : nullptr;
  if (path != nullptr) append("S\t" + *path + "\n");
}

void renamed(const std::string& from, const std::string& to) {
  if (enabled()) append("R\t" + from + "\t" + to + "\n");
}

void unlinked(const std::string& device_path) {
  if (enabled()) append("U\t" + device_path + "\n");
}

}  // namespace platform::host::journal
