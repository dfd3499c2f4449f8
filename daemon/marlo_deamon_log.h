// The log statement of the daemon's library-like classes (updater, transport,
// RMA client, wakelock) and its process-wide settings.
//
// A statement of class N is emitted when the level is at least N; its
// arguments are not evaluated otherwise. It goes to the Android log with the
// process-wide tag, prefixed with "function:line, ", and, when stderr logging
// is on, to stderr with a newline appended (a format that ends in "\n" thus
// shows two newlines there, one in the Android log).
//
// The daemon core (MarloDaemon, MarloComHandler, DFUCallback, SSRHandler)
// logs its own lines, unfiltered and unprefixed; where a peer can make it
// repeat a line quickly it calls marlo_deamon_log::print.
//
// Every line that goes through print (each log statement does) passes the
// repeat limiter (log_repeat_limiter.h): beyond the first ten identical lines
// in one second of the daemon's clock, copies are counted and reported once
// the second has ended as "<line> ... repeated N times". A statement that is
// withheld writes no stderr copy either.
#pragma once

#include <cstdint>
#include <cstdio>

#include <android/log.h>

namespace marlo_deamon_log {

enum log_level : int32_t {
  LOG_LEVEL_NONE = 0,
  LOG_LEVEL_ERROR = 1,
  LOG_LEVEL_INFO = 2,
  LOG_LEVEL_DEBUG = 3,
  LOG_LEVEL_VERBOSE = 4,
};

log_level get_level();
void set_level(log_level level);
const char* get_tag();
// Stores the pointer itself; the caller keeps the string alive.
void set_tag(const char* tag);
bool get_stderr_logging();
// Switched on by marlod's --stderr-log; off by default.
void enable_stderr_logging();

// Formats the line and writes it to the Android log with `prio` and `tag`,
// unless the repeat limiter withholds it; returns whether it was written.
bool print(int prio, const char* tag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// Writes the repeat summaries whose second has ended; the main loop calls it
// once a second, so a summary never waits for a further line.
void flush_repeat_summaries();

}  // namespace marlo_deamon_log

// The statement with the line it reports given explicitly: statements whose
// "function:line" the device's log tools match keep that line whatever line
// they stand on in the source.
#define MARLO_LOG_STATEMENT_AT(level, prio, line, fmt, ...)                                        \
  do {                                                                                             \
    if (marlo_deamon_log::get_level() >= (level)) {                                                \
      if (marlo_deamon_log::print((prio), marlo_deamon_log::get_tag(), "%s:%d, " fmt, __func__,    \
                                  static_cast<int>(line), ##__VA_ARGS__) &&                        \
          marlo_deamon_log::get_stderr_logging())                                                  \
        std::fprintf(stderr, "%s:%d, " fmt "\n", __func__, static_cast<int>(line), ##__VA_ARGS__); \
    }                                                                                              \
  } while (0)

#define MARLO_LOG_STATEMENT(level, prio, fmt, ...) MARLO_LOG_STATEMENT_AT(level, prio, __LINE__, fmt, ##__VA_ARGS__)

#define MARLO_LOGE_AT(line, fmt, ...) \
  MARLO_LOG_STATEMENT_AT(marlo_deamon_log::LOG_LEVEL_ERROR, ANDROID_LOG_ERROR, line, fmt, ##__VA_ARGS__)
#define MARLO_LOGV_AT(line, fmt, ...) \
  MARLO_LOG_STATEMENT_AT(marlo_deamon_log::LOG_LEVEL_VERBOSE, ANDROID_LOG_VERBOSE, line, fmt, ##__VA_ARGS__)

#define MARLO_LOGE(fmt, ...) MARLO_LOGE_AT(__LINE__, fmt, ##__VA_ARGS__)
#define MARLO_LOGI(fmt, ...) MARLO_LOG_STATEMENT(marlo_deamon_log::LOG_LEVEL_INFO, ANDROID_LOG_INFO, fmt, ##__VA_ARGS__)
#define MARLO_LOGD(fmt, ...) \
  MARLO_LOG_STATEMENT(marlo_deamon_log::LOG_LEVEL_DEBUG, ANDROID_LOG_DEBUG, fmt, ##__VA_ARGS__)
#define MARLO_LOGV(fmt, ...) MARLO_LOGV_AT(__LINE__, fmt, ##__VA_ARGS__)
