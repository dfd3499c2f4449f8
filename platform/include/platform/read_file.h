// The daemon's one way to read a whole file: firmware images, misc-data
// files, version files, the partition table and sysfs texts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// What the file system says about a regular file: its size and its identity
// (device and inode), the same however its path is written.
struct file_info {
  uint64_t size = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
};

inline bool same_file(const file_info& a, const file_info& b) { return a.device == b.device && a.inode == b.inode; }

enum class read_status {
  read,        // *out holds the file
  not_opened,  // the file could not be opened, or is a directory
  too_large,   // the file holds more than max_bytes (or than memory takes); nothing was read
};

// Reads the file at `path` (a device path, opened through the platform seam)
// whole into *out, when it holds at most max_bytes. A regular file is read
// in one pass into a buffer sized from the size it reports, and never past
// that size, so a file that grows meanwhile cannot make the buffer grow; one
// that shrinks, or fails half-way, keeps the bytes it gave. A file that
// reports no size (a device, a kernel file) is read to its end, up to
// max_bytes. `info`, when given, is filled for every file opened, a too
// large one included.
read_status read_file(const char* path, uint64_t max_bytes, std::string* out, file_info* info = nullptr);
read_status read_file(const char* path, uint64_t max_bytes, std::vector<uint8_t>* out, file_info* info = nullptr);

// The size and identity of the regular file at `path`, without reading it;
// false when there is none.
bool file_identity(const char* path, file_info* info);

}  // namespace platform
