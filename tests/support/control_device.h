// The virtual co-processor served in-process on a test's root, for the tests
// of the daemon's control-device commands: a bare device root and no
// firmware to build, with a co-processor that boots in either mode (one
// without flash runs what the host loads). Its driver records every request
// and fails those a test refuses (ControlDriver::set_refusal).
#pragma once

#include <memory>
#include <string>

#include "sim/device_root.h"
#include "sim/virtual_device.h"
#include "support/test_root.h"

namespace marlo::test {

inline std::unique_ptr<sim::VirtualDevice> serve_control_device(const TestRoot& root) {
  sim::build_device_root(root.path(), {});
  sim::DeviceOptions options;
  options.variant = sim::Variant::NoflashPsram;
  options.flash = sim::FlashContents::Empty;
  options.dfu.image_ids = {sim::kFlashImageId};  // no shipped set to build: these tests start no download
  auto device = std::make_unique<sim::VirtualDevice>(root.path(), options);
  device->driver().set_reset_offline_ms(0);  // a reset restarts it at once
  return device;
}

// The requests the driver saw, by name, with the value of those that carry
// one, and "!" after each it refused (a block it could not take fails too).
inline std::string request_trace(const sim::ControlDriver& driver) {
  std::string out;
  for (const sim::ControlRequest& r : driver.requests()) {
    if (!out.empty()) out += " ";
    out += r.name();
    if (r.name() == "SET_BOOT_MODE" || r.name() == "BOOT_STATUS") out += "=" + std::to_string(r.value);
    if (r.err != 0) out += "!";
  }
  return out;
}

}  // namespace marlo::test
