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
  kTooLarge,   // the file does not fit a 32-bit size; nothing was read
};

// host_path is a path as the system knows it (already through platform::path).
WholeFileResult read_whole_file(const std::string& host_path, std::vector<uint8_t>* bytes);

}  // namespace marlo_fw
