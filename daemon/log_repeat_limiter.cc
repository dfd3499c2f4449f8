#include "daemon/log_repeat_limiter.h"

#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr int64_t kNoneDue = std::numeric_limits<int64_t>::max();

// FNV-1a over the whole line, and its length.
uint64_t hash_line(const char* line, size_t* length) {
  uint64_t hash = 14695981039346656037ULL;
  const char* p = line;
  for (; *p != '\0'; ++p) {
    hash ^= static_cast<unsigned char>(*p);
    hash *= 1099511628211ULL;
  }
  *length = static_cast<size_t>(p - line);
  return hash;
}

}  // namespace

LogRepeatLimiter::LogRepeatLimiter(Clock clock, Writer writer)
    : clock_(std::move(clock)), writer_(std::move(writer)), next_due_(kNoneDue) {}

bool LogRepeatLimiter::admit(int prio, const char* tag, const char* line) {
  size_t length = 0;
  const uint64_t hash = hash_line(line, &length);
  platform::lock_guard lock(mutex_);
  const int64_t now = nowLocked();
  if (now >= next_due_) flushDueLocked(now);

  Slot* slot = nullptr;
  for (Slot& candidate : slots_) {
    if (candidate.used && candidate.hash == hash && candidate.length == length && candidate.prio == prio &&
        candidate.tag == tag) {
      slot = &candidate;
      break;
    }
  }
  if (slot != nullptr && now - slot->window_start < kWindowNs) {
    slot->last_seen = now;
    if (++slot->count <= kLinesPerWindow) return true;
    if (slot->withheld++ == 0 && slot->window_start + kWindowNs < next_due_) {
      next_due_ = slot->window_start + kWindowNs;
    }
    return false;
  }

  if (slot == nullptr) {
    slot = &slotFor(now);
    slot->used = true;
    slot->prio = prio;
    slot->tag = tag;
    slot->hash = hash;
    slot->length = length;
    const size_t kept = length < kKeptText ? length : kKeptText;
    std::memcpy(slot->text, line, kept);
    // The summary is a line of its own: a newline the format ended with
    // does not go into its middle.
    size_t end = kept;
    while (end > 0 && (slot->text[end - 1] == '\n' || slot->text[end - 1] == '\r')) --end;
    slot->text[end] = '\0';
  }
  // A new window (the summary of an ended one was written above).
  slot->window_start = now;
  slot->last_seen = now;
  slot->count = 1;
  slot->withheld = 0;
  return true;
}

void LogRepeatLimiter::flushDue() {
  platform::lock_guard lock(mutex_);
  const int64_t now = nowLocked();
  if (now >= next_due_) flushDueLocked(now);
}

// The daemon's clock is monotonic, but on the host a test that raises the
// time scale turns it back: that counts as the end of every window.
int64_t LogRepeatLimiter::nowLocked() {
  int64_t now = clock_() + offset_;
  if (now < last_now_) {
    offset_ += last_now_ - now + kWindowNs;
    now = last_now_ + kWindowNs;
  }
  last_now_ = now;
  return now;
}

void LogRepeatLimiter::flushDueLocked(int64_t now) {
  next_due_ = kNoneDue;
  for (Slot& slot : slots_) {
    if (!slot.used || slot.withheld == 0) continue;
    const int64_t end = slot.window_start + kWindowNs;
    if (now >= end) {
      writeSummaryLocked(slot);
    } else if (end < next_due_) {
      next_due_ = end;
    }
  }
}

void LogRepeatLimiter::writeSummaryLocked(Slot& slot) {
  char summary[kKeptText + 48];
  std::snprintf(summary, sizeof(summary), "%s ... repeated %u times", slot.text, static_cast<unsigned>(slot.withheld));
  writer_(slot.prio, slot.tag, summary);
  slot.withheld = 0;
}

// A free entry, else one whose window has ended, else the one seen least
// recently. A withheld count of the entry given up is written first.
LogRepeatLimiter::Slot& LogRepeatLimiter::slotFor(int64_t now) {
  Slot* victim = nullptr;
  for (Slot& slot : slots_) {
    if (!slot.used) return slot;
    if (now - slot.window_start >= kWindowNs) {
      victim = &slot;
      break;
    }
    if (victim == nullptr || slot.last_seen < victim->last_seen) victim = &slot;
  }
  if (victim->withheld > 0) writeSummaryLocked(*victim);
  return *victim;
}
