// The two outputs of the host's Android log, stderr and the JSON file, fed
// through one queue that a writer thread empties in batches.
//
// Every entry used to be formatted twice and cost two write calls on the
// logging thread; at the daemon's level (every statement class) that was
// most of the time it took to answer a request. Entries are now copied into
// memory as they are, and formatted and written a few milliseconds later by
// the writer thread, in one write per output, in the order they were made.
// Entries that must not wait are written before their call returns, with
// everything queued before them: urgent ones (warnings and worse, which may
// precede an abort), entries at process exit, entries in a forked child
// (which has no writer thread), and queued entries of a log file that is
// being replaced because MARLO_LOG_FILE changed.
#pragma once

#include <string_view>

#include "log_format.h"

namespace platform::host {

// Queues `entry` (copied) for stderr and for the JSON log named by
// `file_path` (none when empty).
void queue_log_entry(const LogEntry& entry, std::string_view file_path, bool urgent);

// Writes everything queued before returning.
void flush_log_queue();

}  // namespace platform::host
