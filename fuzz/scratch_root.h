// A scratch device root for one fuzzer process: a fresh temporary directory
// (on tmpfs when there is one, so that the daemon's fdatasync calls cost
// nothing) that MARLO_ROOT names for the life of the process, with the
// daemon's sleeps scaled down to a ten-thousandth. Removed at exit.
#pragma once

#include <cstdint>
#include <string>

namespace marlo::fuzz {

// Creates the root on first use and returns its path.
const std::string& scratch_root();

// Writes a file below the root, creating its directories.
void write_file(const std::string& device_path, const uint8_t* data, size_t size);
void write_file(const std::string& device_path, const std::string& text);
// Removes every entry of a directory below the root, keeping the directory.
void empty_dir(const std::string& device_path);

// The log statements stay on (their formatting is part of what is fuzzed),
// but the host log's copy on stderr is thrown away: the fuzzer scripts run
// with -close_fd_mask=2, which keeps libFuzzer's and the sanitizers' reports.

}  // namespace marlo::fuzz
