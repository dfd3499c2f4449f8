// LogCapture in the device-side test module, linked in place of
// log_capture.cc (which needs the host backend). The module defines the
// Android log's write and print calls itself: the code under test, linked
// statically into the module, calls these definitions, which show each entry
// to the capture and then hand it to the platform's log as it stands.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "daemon/marlo_deamon_log.h"
#include "support/log_capture.h"

namespace {

std::mutex g_sink_mutex;
std::function<void(int, const char*, const char*)> g_sink;  // guarded by g_sink_mutex

}  // namespace

// Every entry of the code under test reaches the log through one of these
// two calls: the daemon's log statement writes a formatted line, the daemon
// core prints. Each shows the entry to the capture, then hands it to the
// platform's log by the call beneath them both.
extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    if (g_sink) g_sink(prio, tag, text);
  }
  return __android_log_buf_write(LOG_ID_MAIN, prio, tag, text);
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return __android_log_write(prio, tag, text.c_str());
}

namespace marlo::test {

LogCapture::LogCapture() {
  // Lines an earlier capture saw repeated must not be withheld from this one.
  marlo_deamon_log::restart_repeat_counts();
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = [this](int prio, const char* tag, const char* msg) { add(prio, tag, msg); };
}

LogCapture::~LogCapture() {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = nullptr;
}

}  // namespace marlo::test
