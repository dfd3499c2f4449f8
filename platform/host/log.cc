// The host's Android log: one logcat "threadtime" line per entry on stderr,
// and one JSON object per entry appended to $MARLO_LOG_FILE when it is set
// (log_format.h). Both outputs go through the log queue (log_queue.h); the
// sink of the tests is called before the call returns.
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include <android/log.h>

#include "log_queue.h"
#include "platform/host_testing.h"

extern char** environ;

namespace {

std::mutex g_sink_mutex;
platform::host::LogSink g_sink;

// Process and thread ids, asked of the kernel once per thread and again in
// the child of a fork.
std::atomic<unsigned> g_fork_generation{0};
[[maybe_unused]] const int g_fork_counter_installed =
    pthread_atfork(nullptr, nullptr, [] { g_fork_generation.fetch_add(1, std::memory_order_relaxed); });

struct Ids {
  int pid;
  long tid;
};

Ids current_ids() {
  thread_local unsigned generation = ~0u;
  thread_local Ids ids{0, 0};
  const unsigned now = g_fork_generation.load(std::memory_order_relaxed);
  if (now != generation) {
    ids = {static_cast<int>(getpid()), syscall(SYS_gettid)};
    generation = now;
  }
  return ids;
}

// $MARLO_LOG_FILE, or "" when unset. getenv compares every entry of the
// environment, and at the daemon's level it ran for each of the 26 entries of
// a DFU request; so the environment is searched again only when it may have
// changed. setenv and unsetenv install, replace or remove entries of
// `environ`, never rewriting an entry's text in place: an entry found earlier
// that is still at its index still holds the value, and an environment that
// had none is unchanged while its array, its last entry and its end are.
// Each thread keeps its own record, so no lock is needed.
const char* log_file_path() {
  static constexpr char kName[] = "MARLO_LOG_FILE=";
  constexpr size_t kNameLength = sizeof(kName) - 1;
  struct Seen {
    char** env = nullptr;
    size_t index = 0;             // of the entry found, or the number of entries when none was
    const char* entry = nullptr;  // the entry found, or the last entry when none was
    bool found = false;
  };
  thread_local Seen seen;
  char** const env = environ;
  if (env != nullptr && env == seen.env) {
    if (seen.found && env[seen.index] == seen.entry) return seen.entry + kNameLength;
    if (!seen.found && env[seen.index] == nullptr && (seen.index == 0 || env[seen.index - 1] == seen.entry)) {
      return "";
    }
  }
  seen = Seen{env};
  if (env == nullptr) return "";
  for (; env[seen.index] != nullptr; ++seen.index) {
    if (std::strncmp(env[seen.index], kName, kNameLength) == 0) {
      seen.entry = env[seen.index];
      seen.found = true;
      return seen.entry + kNameLength;
    }
  }
  seen.entry = seen.index > 0 ? env[seen.index - 1] : nullptr;
  return "";
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  if (text == nullptr) text = "";
  const Ids ids = current_ids();
  platform::host::LogEntry entry;
  entry.prio = prio;
  entry.has_tag = tag != nullptr;
  entry.tag = tag != nullptr ? tag : "";
  entry.text = text;
  entry.pid = ids.pid;
  entry.tid = ids.tid;
  clock_gettime(CLOCK_REALTIME, &entry.when);
  platform::host::queue_log_entry(entry, log_file_path(), prio >= ANDROID_LOG_WARN);

  std::lock_guard<std::mutex> lock(g_sink_mutex);
  if (g_sink) g_sink(prio, tag, text);
  return 1;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  // Most messages fit the stack buffer and are formatted once.
  char small[512];
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (needed < 0 || static_cast<size_t>(needed) < sizeof(small)) {
    va_end(args);
    return __android_log_write(prio, tag, needed < 0 ? "" : small);
  }
  std::string text(static_cast<size_t>(needed), '\0');
  std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return __android_log_write(prio, tag, text.c_str());
}

namespace platform::host {

void set_log_sink(LogSink sink) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = std::move(sink);
}

}  // namespace platform::host
