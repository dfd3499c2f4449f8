// The host backend's record of the daemon's file operations.
//
// With MARLO_FILE_JOURNAL naming a file, every change the daemon makes to
// regular files and directories through the platform seam is appended to it
// in the order it happened: creations, writes with their bytes, truncations,
// fsync/fdatasync (of files and of directories), renames and removals. From
// such a record a test can rebuild every state a power loss could leave on
// the disk. Without the variable nothing is recorded and nothing is locked.
//
// Record layout, one operation each, fields separated by tabs:
//   C <path>                    creation of an empty file
//   W <path> <offset> <length>  followed by the bytes and a newline
//   T <path> <length>           truncation (or extension) to length
//   S <path>                    fsync or fdatasync of a file or directory
//   R <from> <to>               rename
//   U <path>                    removal
//   P <path> <length>           a packet written to a device node, followed
//                               by its bytes and a newline (what the daemon
//                               told the co-processor, and when)
// Paths are device paths; every record ends with a newline.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <string>

namespace platform::host::journal {

// True when MARLO_FILE_JOURNAL is set.
bool enabled();

// Held around an operation and its record, so that the record's order is
// the order in which the operations reached the file system. Empty (owns no
// lock) when recording is off.
std::unique_lock<std::mutex> hold();

// Each called with hold() held, after the operation succeeded.
void opened(int fd, const std::string& device_path, bool created, bool truncated);
void closed(int fd);
void duplicated(int fd, int copy);
void wrote(int fd, off_t offset, const void* data, size_t length);
void packet(int fd, const void* data, size_t length);
void truncated(int fd, off_t length);
void synced(int fd);
void renamed(const std::string& from, const std::string& to);
void unlinked(const std::string& device_path);

}  // namespace platform::host::journal
