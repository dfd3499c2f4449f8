// The uevent message walk (SSRHandler::handleMessage) with any datagram the
// uevent socket could deliver. The buffer is exactly the listener's (1024
// bytes and two spare ones) and the length is the datagram's true length,
// which may exceed what the buffer holds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "daemon/SSRHandler.h"
#include "fuzz/scratch_root.h"
#include "sim/device_root.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // No daemon behind it; its listener thread waits on the scratch root's
  // uevent socket, which nothing sends to.
  static SSRHandler* handler = [] {
    marlo::sim::build_device_root(marlo::fuzz::scratch_root(), marlo::sim::RootOptions{});
    return new SSRHandler(nullptr);
  }();
  auto buffer = std::make_unique<char[]>(SSRHandler::kMaxMessage + 2);
  std::memcpy(buffer.get(), data, std::min(size, SSRHandler::kMaxMessage));
  handler->handleMessage(buffer.get(), static_cast<ssize_t>(size));
  return 0;
}
