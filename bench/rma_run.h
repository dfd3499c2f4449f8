// RMA writes of 4 KiB blocks served by the daemon, against a plain loop that
// writes the same blocks with write + fdatasync on the same file system.
#pragma once

#include <cstdint>
#include <string>

namespace marlo::bench {

struct RmaFigures {
  int blocks = 0;
  double daemon_blocks_per_second = 0;  // DATA_WRITE sent to its answer received
  double plain_blocks_per_second = 0;   // write + fdatasync per block
  // DATA_READ of the same blocks, sent to answered: the channel's round trip
  // and the daemon's work per request without the sync.
  double daemon_read_us = 0;
};

// A co-processor without flash whose RMA workload writes one partition of
// `partition_bytes` in 4 KiB blocks; throws std::runtime_error on failure.
RmaFigures run_rma_writes(const std::string& marlod, uint32_t partition_bytes);

}  // namespace marlo::bench
