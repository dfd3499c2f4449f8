#include "marlo_deamon_log.h"

#include <atomic>
#include <cstdarg>
#include <vector>

#include "daemon/log_repeat_limiter.h"
#include "platform/os.h"

namespace marlo_deamon_log {
namespace {

// Written during start-up, read by every thread.
std::atomic<log_level> g_level{LOG_LEVEL_INFO};
std::atomic<const char*> g_tag{"MarloDaemon"};
std::atomic<bool> g_stderr_logging{false};

void write_summary(int prio, const char* tag, const char* text) {
  __android_log_write(prio, tag, text);
  if (get_stderr_logging()) std::fprintf(stderr, "%s\n", text);
}

// Never destroyed: threads that outlive main's return may still log.
LogRepeatLimiter& limiter() {
  static LogRepeatLimiter* const instance = new LogRepeatLimiter(platform::daemon_clock_ns, write_summary);
  return *instance;
}

}  // namespace

log_level get_level() { return g_level.load(std::memory_order_relaxed); }
void set_level(log_level level) { g_level.store(level, std::memory_order_relaxed); }
const char* get_tag() { return g_tag.load(std::memory_order_relaxed); }
void set_tag(const char* tag) { g_tag.store(tag, std::memory_order_relaxed); }
bool get_stderr_logging() { return g_stderr_logging.load(std::memory_order_relaxed); }
void enable_stderr_logging() { g_stderr_logging.store(true, std::memory_order_relaxed); }

bool print(int prio, const char* tag, const char* fmt, ...) {
  // The Android log keeps about 4 KiB of a message; longer lines (rare) are
  // formatted whole on the heap and left to the log to cut, as before.
  char small[1024];
  std::vector<char> large;
  const char* line = small;
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(small, sizeof(small), fmt, args);
  va_end(args);
  if (needed < 0) {
    small[0] = '\0';
  } else if (static_cast<size_t>(needed) >= sizeof(small)) {
    large.resize(static_cast<size_t>(needed) + 1);
    std::vsnprintf(large.data(), large.size(), fmt, again);
    line = large.data();
  }
  va_end(again);
  if (!limiter().admit(prio, tag, line)) return false;
  __android_log_write(prio, tag, line);
  return true;
}

void flush_repeat_summaries() { limiter().flushDue(); }

}  // namespace marlo_deamon_log
