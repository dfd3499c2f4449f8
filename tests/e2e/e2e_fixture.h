// One virtual device and the daemon running against it, for the end-to-end
// cases. The daemon is build/marlod (found through MARLO_BUILD_DIR).
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "sim/daemon_process.h"
#include "sim/virtual_device.h"

namespace marlo::e2e {

// A flash-less (NOFLASH_PSRAM) co-processor that runs from the start, with
// nothing in flash.
sim::DeviceOptions noflash_options();

class E2e : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // With MARLO_CAPTURE_DIR set (and no capture_file in `options`), the
  // session is captured in <dir>/<suite>.<test>.pcapng (-2, -3... for the
  // test's later devices).
  void start_device(sim::DeviceOptions options);
  // Starts marlod against the root; a fresh log file per start.
  void start_daemon();
  void stop_daemon() { daemon_.reset(); }
  // Polls `condition` for up to `timeout_ms` of real time.
  bool wait_for(const std::function<bool()>& condition, int timeout_ms = 15000);
  // Entries of the daemon's log that contain `text`.
  int log_count(const std::string& text) const;
  std::string property(const std::string& name) const;
  void set_property(const std::string& name, const std::string& value) const;
  // True once a download has been committed and the daemon has switched the
  // co-processor back to FLASH mode and reported boot status 1.
  bool update_finished() const;
  // Index of the first recorded request named `name` with `value` (any
  // value when negative), from `from` on; -1 when none.
  int request_index(const std::string& name, long value, size_t from = 0) const;
  void expect_flash_holds_shipped_firmware() const;

  std::string root_;
  sim::FirmwareSet shipped_;
  std::unique_ptr<sim::VirtualDevice> device_;
  std::unique_ptr<sim::DaemonProcess> daemon_;
  std::string log_file_;
  int starts_ = 0;
  int devices_ = 0;
};

}  // namespace marlo::e2e
