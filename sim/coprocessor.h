// The co-processor's power and boot state as its kernel driver keeps it:
// boot mode, running or offline (mirrored in the remoteproc state file),
// which firmware runs, and restarts with their power-down/power-up uevents.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/event_log.h"
#include "sim/firmware_manifest.h"
#include "sim/virtual_flash.h"
#include "sim/wire.h"

namespace marlo::sim {

enum class Variant { Flash, NoflashPsram };

constexpr int kBootModeHost = 0;
constexpr int kBootModeFlash = 1;

class CoProcessor {
 public:
  CoProcessor(std::string root, VirtualFlash& flash, EventLog& log, Variant variant);
  ~CoProcessor();
  CoProcessor(const CoProcessor&) = delete;
  CoProcessor& operator=(const CoProcessor&) = delete;

  Variant variant() const { return variant_; }
  int boot_mode() const;
  void set_boot_mode(int mode);
  bool running() const;
  // Number of times the co-processor came up.
  uint64_t boots() const;

  // Boots in the current mode: 0, or the errno of a failed boot (EIO when
  // the flash holds no bootable firmware or a FLASH-load fault is armed).
  int load();
  void unload(const std::string& why);
  // Subsystem restart: down (uevent 1), `offline_ms` later up again in the
  // current mode (uevent 4) when the boot succeeds.
  void restart(int offline_ms);
  void restart_async(int offline_ms);
  // Device power cycle: offline, boot mode back to the FLASH default, no
  // uevents (the daemon starts afresh).
  void power_cycle();

  void fail_flash_loads(int count) { flash_load_failures_ = count; }

  // The 308-byte version record of the running firmware; none when offline.
  std::optional<Bytes> version_record() const;
  std::optional<FirmwareManifest> running_firmware() const;

  // Called with false when the co-processor goes down and true when it comes
  // up, outside any lock of this object.
  void add_power_listener(std::function<void(bool up)> listener);

 private:
  void set_running(bool running, const std::string& why);
  void notify(bool up);
  std::optional<FirmwareManifest> host_image_manifest() const;

  std::string root_;
  VirtualFlash& flash_;
  EventLog& log_;
  Variant variant_;
  std::mutex power_mutex_;  // serialises boots and shutdowns
  mutable std::mutex mutex_;
  int boot_mode_ = kBootModeFlash;
  bool running_ = false;
  uint64_t boots_ = 0;
  std::optional<FirmwareManifest> firmware_;
  std::atomic<int> flash_load_failures_{0};
  std::vector<std::function<void(bool)>> listeners_;
  std::mutex restart_mutex_;
  std::thread restart_thread_;
};

}  // namespace marlo::sim
