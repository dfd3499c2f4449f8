// Host-only hooks that let tests watch and disturb the virtual device from
// inside the daemon's process. Not available in the device build.
#pragma once

#include <functional>

namespace platform::host {

// Receives every Android log entry in addition to stderr and MARLO_LOG_FILE;
// tag is null when the caller passed a null tag. Pass an empty function to
// remove the sink.
using LogSink = std::function<void(int prio, const char* tag, const char* msg)>;
void set_log_sink(LogSink sink);

// Makes the next `count` calls of `op` on device-node descriptor `fd` fail
// with errno `err` without touching the socket (a busy or starved packet
// device). Cleared when the descriptor is closed.
enum class FaultOp { Read, Write };
void inject_fault(int fd, FaultOp op, int err, int count);

}  // namespace platform::host
