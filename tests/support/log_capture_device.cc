// LogCapture in the device-side test module, linked in place of
// log_capture.cc (which needs the host backend). The module defines the
// Android log's print call itself: the code under test, linked statically
// into the module, calls this definition, which shows each entry to the
// capture and then hands it to the platform's log as it stands.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "support/log_capture.h"

namespace {

std::mutex g_sink_mutex;
std::function<void(int, const char*, const char*)> g_sink;  // guarded by g_sink_mutex

}  // namespace

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
  {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    if (g_sink) g_sink(prio, tag, text.c_str());
  }
  return __android_log_write(prio, tag, text.c_str());
}

namespace marlo::test {

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = [this](int prio, const char* tag, const char* msg) { add(prio, tag, msg); };
}

LogCapture::~LogCapture() {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = nullptr;
}

}  // namespace marlo::test
