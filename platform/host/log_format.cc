#include "log_format.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <android/log.h>

namespace platform::host {

namespace {

char priority_letter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= ANDROID_LOG_SILENT) ? kLetters[prio] : '?';
}

// Characters that a JSON string cannot hold as they are.
struct EscapeTable {
  bool escaped[256] = {};
  constexpr EscapeTable() {
    for (int c = 0; c < 0x20; ++c) escaped[c] = true;
    escaped[static_cast<unsigned char>('"')] = true;
    escaped[static_cast<unsigned char>('\\')] = true;
  }
};
constexpr EscapeTable kEscapes;

// True when one of the eight bytes of `word` is below 0x20, '"' or '\\'
// (the classic has-zero-byte test), so that plain text is skipped a word at
// a time: messages rarely hold anything to escape.
bool word_needs_escape(uint64_t word) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighs = 0x8080808080808080ULL;
  auto has_zero_byte = [](uint64_t v) { return ((v - kOnes) & ~v & kHighs) != 0; };
  const bool below_space = ((word - kOnes * 0x20) & ~word & kHighs) != 0;
  return below_space || has_zero_byte(word ^ (kOnes * '"')) || has_zero_byte(word ^ (kOnes * '\\'));
}

void append_json_string(std::string& out, std::string_view text) {
  out += '"';
  size_t plain = 0;  // start of the run of characters that need no escape
  for (size_t i = 0; i < text.size(); ++i) {
    while (i + 8 <= text.size()) {
      uint64_t word;
      std::memcpy(&word, text.data() + i, sizeof(word));
      if (word_needs_escape(word)) break;
      i += 8;
    }
    if (i >= text.size()) break;
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (!kEscapes.escaped[c]) continue;
    out.append(text, plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        char escaped[8];
        std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
        out += escaped;
      }
    }
  }
  out.append(text, plain, text.size() - plain);
  out += '"';
}

void append_number(std::string& out, long value) {
  char digits[24];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
  out.append(digits, end.ptr);
}

// The prefix of every line of an entry, made by hand: it is made for every
// entry, and snprintf cost more than the rest of the formatting. The
// calendar part changes once a second, the ids once a thread: both are kept
// between entries.
void append_prefix(std::string& out, const LogEntry& entry) {
  thread_local time_t stamp_second = -1;
  thread_local char stamp[32];
  if (entry.when.tv_sec != stamp_second) {
    struct tm local;
    localtime_r(&entry.when.tv_sec, &local);
    std::strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
    stamp_second = entry.when.tv_sec;
  }
  thread_local int ids_pid = -1;
  thread_local long ids_tid = -1;
  thread_local char ids[48];
  thread_local size_t ids_length = 0;
  if (entry.pid != ids_pid || entry.tid != ids_tid) {
    const int n = std::snprintf(ids, sizeof(ids), " %5d %5ld ", entry.pid, entry.tid);
    ids_length = n > 0 ? std::min(static_cast<size_t>(n), sizeof(ids) - 1) : 0;
    ids_pid = entry.pid;
    ids_tid = entry.tid;
  }
  const long millis = entry.when.tv_nsec / 1000000L;
  const char fraction[4] = {'.', static_cast<char>('0' + millis / 100), static_cast<char>('0' + millis / 10 % 10),
                            static_cast<char>('0' + millis % 10)};
  out += stamp;
  out.append(fraction, sizeof(fraction));
  out.append(ids, ids_length);
  out += priority_letter(entry.prio);
  out += ' ';
  if (entry.has_tag) {
    out.append(entry.tag);
  } else {
    out += program_invocation_short_name;
  }
  out += ": ";
}

}  // namespace

void append_threadtime_lines(std::string& out, const LogEntry& entry) {
  // logcat shows each line of a message on a line of its own, without the
  // message's trailing newlines.
  std::string_view body = entry.text;
  while (!body.empty() && body.back() == '\n') body.remove_suffix(1);
  const size_t prefix_start = out.size();
  append_prefix(out, entry);
  const size_t prefix_length = out.size() - prefix_start;
  size_t start = 0;
  do {
    size_t end = body.find('\n', start);
    if (end == std::string_view::npos) end = body.size();
    if (start != 0) out.append(out, prefix_start, prefix_length);
    out.append(body, start, end - start);
    out += '\n';
    start = end + 1;
  } while (start <= body.size());
}

void append_json_object(std::string& out, const LogEntry& entry) {
  out += "{\"prio\": ";
  append_number(out, entry.prio);
  out += ", \"tag\": ";
  if (entry.has_tag) {
    append_json_string(out, entry.tag);
  } else {
    out += "null";
  }
  out += ", \"tid\": ";
  append_number(out, entry.tid);
  out += ", \"msg\": ";
  append_json_string(out, entry.text);
  out += "}\n";
}

}  // namespace platform::host
