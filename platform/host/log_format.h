// The two written forms of a host log entry: logcat "threadtime" lines for
// stderr and one JSON object for the JSON log.
#pragma once

#include <time.h>

#include <string>
#include <string_view>

namespace platform::host {

struct LogEntry {
  int prio = 0;
  bool has_tag = false;
  std::string_view tag;
  std::string_view text;
  int pid = 0;
  long tid = 0;
  struct timespec when {};
};

// Appends one line per line of the message (trailing newlines dropped), each
// with the "MM-DD hh:mm:ss.mmm  pid   tid P tag: " prefix; an entry without
// a tag shows the program's name.
void append_threadtime_lines(std::string& out, const LogEntry& entry);

// Appends {"prio": P, "tag": "..." or null, "tid": T, "msg": "..."} and a
// newline.
void append_json_object(std::string& out, const LogEntry& entry);

}  // namespace platform::host
