// One device root, the virtual device on it and the daemon (build/marlod,
// found through MARLO_BUILD_DIR) running against it: the harness of the
// end-to-end cases, the read-fault matrix and the generated co-processor.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "sim/daemon_process.h"
#include "sim/virtual_device.h"

namespace marlo::e2e {

// A flash-less (NOFLASH_PSRAM) co-processor that runs from the start, with
// nothing in flash.
sim::DeviceOptions noflash_options();

class DaemonRig {
 public:
  // A fresh root with the sample files. `time_scale` scales the daemon's
  // fixed waits (0.01 keeps its 1 s and 2 s waits at a few milliseconds).
  explicit DaemonRig(double time_scale = 0.01);
  virtual ~DaemonRig();
  DaemonRig(const DaemonRig&) = delete;
  DaemonRig& operator=(const DaemonRig&) = delete;

  void start_device(sim::DeviceOptions options);
  // Starts marlod against the root, a fresh log file per start; why it
  // could not, or empty.
  std::string launch_daemon();
  void stop_daemon() { daemon_.reset(); }
  // The daemon and the device stopped and a fresh root made; the old one is
  // kept for inspection when `keep_old`.
  void renew_root(bool keep_old = false);

  // Entries of the daemon's current log that contain `text`.
  int log_count(const std::string& text) const;
  std::string property(const std::string& name) const;
  void set_property(const std::string& name, const std::string& value) const;
  // Index of the first recorded request named `name` with `value` (any
  // value when negative), from `from` on; -1 when none.
  int request_index(const std::string& name, long value, size_t from = 0) const;
  // True once a download has been committed and the daemon has switched the
  // co-processor back to FLASH mode and reported boot status 1.
  bool update_finished() const;
  // The first way the flash differs from the shipped firmware; empty when
  // it holds it exactly.
  std::string flash_problem() const;
  // The daemon's wakelock records in the kernel files.
  size_t wakelock_takes() const;
  size_t wakelock_releases() const;
  // True when the daemon has taken the wakelock and, as now, given back every
  // reference.
  bool wakelock_released() const;

  // What the daemon did over `window` of real time: its share of a core and
  // the growth of its log a second.
  struct Activity {
    double core_share = 0;
    double log_bytes_per_second = 0;
  };
  Activity activity_over(std::chrono::milliseconds window) const;

  std::string root_;
  sim::FirmwareSet shipped_;
  std::unique_ptr<sim::VirtualDevice> device_;
  std::unique_ptr<sim::DaemonProcess> daemon_;
  std::string log_file_;
  int starts_ = 0;
  bool keep_root_ = false;  // the root stays on disk after the rig

 private:
  void discard_root(bool keep);

  double time_scale_;
};

class E2e : public ::testing::Test, public DaemonRig {
 public:
  void TearDown() override;

  // With MARLO_CAPTURE_DIR set (and no capture_file in `options`), the
  // session is captured in <dir>/<suite>.<test>.pcapng (-2, -3... for the
  // test's later devices).
  void start_device(sim::DeviceOptions options);
  void start_daemon() { ASSERT_EQ(launch_daemon(), ""); }
  // Polls `condition` for up to `timeout_ms` of real time; a daemon that
  // ended fails the test.
  bool wait_for(const std::function<bool()>& condition, int timeout_ms = 15000);
  void expect_flash_holds_shipped_firmware() const;

  int devices_ = 0;
};

}  // namespace marlo::e2e
