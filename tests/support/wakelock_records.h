// How many times the daemon wrote its wakelock's name into one of the kernel
// wakelock files (each write is the name and its terminating zero).
#pragma once

#include <cstddef>
#include <string>

namespace marlo::test {

inline size_t wakelock_records(const std::string& contents) {
  const std::string record("MARLODAEMON_WAKEUP\0", 19);
  size_t count = 0;
  for (size_t at = contents.find(record); at != std::string::npos; at = contents.find(record, at + 1)) ++count;
  return count;
}

}  // namespace marlo::test
