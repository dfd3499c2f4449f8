// Keeps an error path that repeats itself from flooding the log.
//
// A peer that misbehaves in a tight loop (a channel that keeps reading
// end-of-stream, a co-processor that keeps failing a request) makes the
// daemon log the same line thousands of times a second, enough to fill
// "/data". The limiter writes the first kLinesPerWindow copies of a line in
// one window of the daemon's clock and only counts the copies after them.
// When the window has ended, one summary line "<line> ... repeated N times"
// reports the N copies that were not written. Ordinary retries, which repeat
// a line a few times a second, are written in full.
//
// A line is identified by its priority, its tag and its text. The table of
// recent lines has kSlots entries; a new line takes a free entry, one whose
// window has ended, or the one seen least recently (its summary, if any, is
// written first). More than kSlots distinct lines repeating in turn are
// therefore not limited: the table stays small and the hot path short.
//
// Pending summaries are written by the first statement, of any line, once
// their window has ended, and by flushDue(), which the daemon's main loop
// calls every second: a flood that stops leaves no summary unwritten for
// more than about a second.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/thread_annotations.h"

class LogRepeatLimiter {
 public:
  static constexpr int kLinesPerWindow = 10;
  static constexpr int64_t kWindowNs = 1000000000;
  static constexpr size_t kSlots = 16;
  // Bytes of a line kept for its summary.
  static constexpr size_t kKeptText = 200;

  // Nanoseconds of the daemon's clock.
  using Clock = std::function<int64_t()>;
  // Writes one summary line. Called with the limiter's lock held, so it must
  // not log through the limiter.
  using Writer = std::function<void(int prio, const char* tag, const char* text)>;

  LogRepeatLimiter(Clock clock, Writer writer);

  // True when `line` is to be written now; false when it is counted for a
  // summary instead. Writes the summaries that are due first.
  bool admit(int prio, const char* tag, const char* line) EXCLUDES(mutex_);
  // Writes the summaries of windows that have ended.
  void flushDue() EXCLUDES(mutex_);

 private:
  struct Slot {
    bool used = false;
    int prio = 0;
    const char* tag = nullptr;
    uint64_t hash = 0;
    size_t length = 0;
    int64_t window_start = 0;
    int64_t last_seen = 0;
    uint32_t count = 0;     // copies seen in this window
    uint32_t withheld = 0;  // copies beyond kLinesPerWindow, not written
    char text[kKeptText + 1] = {};
  };

  // The clock's reading, never below an earlier one.
  int64_t nowLocked() REQUIRES(mutex_);
  void flushDueLocked(int64_t now) REQUIRES(mutex_);
  void writeSummaryLocked(Slot& slot) REQUIRES(mutex_);
  Slot& slotFor(int64_t now) REQUIRES(mutex_);

  const Clock clock_;
  const Writer writer_;
  platform::mutex mutex_;
  Slot slots_[kSlots] GUARDED_BY(mutex_);
  // Earliest end of a window with copies withheld; INT64_MAX when none.
  int64_t next_due_ GUARDED_BY(mutex_);
  int64_t last_now_ GUARDED_BY(mutex_) = 0;
  int64_t offset_ GUARDED_BY(mutex_) = 0;  // added to the clock, see nowLocked
};
