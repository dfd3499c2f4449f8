// Reads a file whole into memory in one pass, with the buffer reserved from
// the file's size. Shared by the firmware images and the misc-data files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlo_fw {

enum class WholeFileResult {
  kRead,       // bytes holds the file
  kNotOpened,  // the file could not be opened
  kTooLarge,   // the file is larger than allowed (or than memory takes); nothing was read
};

// What the file system says about the file that was opened: its size and
// its identity (device and inode), the same however its path is written.
struct WholeFileInfo {
  uint64_t size = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
};

inline bool same_file(const WholeFileInfo& a, const WholeFileInfo& b) {
  return a.device == b.device && a.inode == b.inode;
}

// host_path is a path as the system knows it (already through platform::path).
// A regular file of at most max_size bytes is read; info, when given, is
// filled for every file that could be opened, a too large one included.
WholeFileResult read_whole_file(const std::string& host_path, uint64_t max_size, std::vector<uint8_t>* bytes,
                                WholeFileInfo* info);

// The identity of the regular file at host_path, without opening it; false
// when there is none.
bool whole_file_identity(const std::string& host_path, WholeFileInfo* info);

}  // namespace marlo_fw
