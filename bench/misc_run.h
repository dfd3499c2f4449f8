// The misc-data push of a co-processor without flash: the daemon against the
// conformant floor sending the same packets (build/marlo-floor).
#pragma once

#include <cstdint>
#include <string>

namespace marlo::bench {

struct MiscFigures {
  uint64_t bytes = 0;  // misc-data bytes pushed
  int packets = 0;
  double daemon_seconds = 0;  // first packet received to the last, on the co-processor's side
  double floor_seconds = 0;
};

// Pushes the sample misc data with a Bluetooth firmware of `firmware_bytes`;
// throws std::runtime_error when a push does not finish.
MiscFigures run_misc_push(const std::string& marlod, const std::string& floor, uint32_t firmware_bytes);

}  // namespace marlo::bench
