// The host's Android log: one logcat "threadtime" line per entry on stderr,
// and one JSON object per entry appended to $MARLO_LOG_FILE when it is set.
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include <android/log.h>

#include "platform/host_testing.h"

namespace {

std::mutex g_log_mutex;
platform::host::LogSink g_sink;
std::string g_log_file_path;
int g_log_file_fd = -1;

char priority_letter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= ANDROID_LOG_SILENT) ? kLetters[prio] : '?';
}

std::string json_string(const char* text) {
  std::string out = "\"";
  for (const char* p = text; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

void write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Reopens the JSON log when MARLO_LOG_FILE names another file. Caller holds
// g_log_mutex.
int log_file_fd() {
  const char* path = std::getenv("MARLO_LOG_FILE");
  std::string wanted = (path != nullptr) ? path : "";
  if (wanted != g_log_file_path) {
    if (g_log_file_fd >= 0) ::close(g_log_file_fd);
    g_log_file_fd = wanted.empty() ? -1 : ::open(wanted.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    g_log_file_path = wanted;
  }
  return g_log_file_fd;
}

std::string threadtime_prefix(int prio, const char* tag, long tid) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
  char prefix[128];
  std::snprintf(prefix, sizeof(prefix), "%s.%03ld %5d %5ld %c %s: ", stamp, now.tv_nsec / 1000000L,
                static_cast<int>(getpid()), tid, priority_letter(prio),
                tag != nullptr ? tag : program_invocation_short_name);
  return prefix;
}

}  // namespace

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  if (text == nullptr) text = "";
  long tid = syscall(SYS_gettid);

  // logcat shows each line of a message on a line of its own, without the
  // message's trailing newlines.
  std::string prefix = threadtime_prefix(prio, tag, tid);
  std::string body = text;
  while (!body.empty() && body.back() == '\n') body.pop_back();
  std::string lines;
  size_t start = 0;
  do {
    size_t end = body.find('\n', start);
    if (end == std::string::npos) end = body.size();
    lines += prefix + body.substr(start, end - start) + "\n";
    start = end + 1;
  } while (start <= body.size());

  std::lock_guard<std::mutex> lock(g_log_mutex);
  write_all(STDERR_FILENO, lines);
  int fd = log_file_fd();
  if (fd >= 0) {
    std::string entry = "{\"prio\": " + std::to_string(prio) +
                        ", \"tag\": " + (tag != nullptr ? json_string(tag) : std::string("null")) +
                        ", \"tid\": " + std::to_string(tid) + ", \"msg\": " + json_string(text) + "}\n";
    write_all(fd, entry);
  }
  if (g_sink) g_sink(prio, tag, text);
  return 1;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return __android_log_write(prio, tag, text.c_str());
}

namespace platform::host {

void set_log_sink(LogSink sink) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_sink = std::move(sink);
}

}  // namespace platform::host
