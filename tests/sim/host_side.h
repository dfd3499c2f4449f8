// The host's side of the virtual device for the sim's own tests, through
// the platform layer that the daemon uses.
#pragma once

#include <cstdint>
#include <string>

#include "sim/wire.h"

namespace marlo::sim::test {

struct IoctlAnswer {
  int result;
  int err;
  Bytes reply;  // version record when one came back
};

// One control-device command with the given request, cmd and value.
IoctlAnswer control(uint32_t request, uint32_t cmd, uint32_t value = 0);

// Opens a device path through the platform layer; -1 with errno on failure.
int open_node(const char* path);
// One packet from a node (empty on time-out or hang-up).
Bytes read_packet(int fd, int timeout_ms = 2000);
bool write_packet(int fd, const Bytes& packet);

}  // namespace marlo::sim::test
