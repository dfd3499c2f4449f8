#include "sim/tools/demo.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/flash_check.h"
#include "sim/tools/terminal_view.h"
#include "sim/virtual_device.h"

namespace marlo::sim {

namespace {

const std::vector<std::string> kWatchedProperties = {"vendor.marlo.boot_complete", "persist.vendor.zt_aon.dfu_update",
                                                     "vendor.zt_aon.misc_update"};

bool interesting(const DeviceEvent& e) {
  if (e.source != "driver") return e.text.find("asking again") == std::string::npos;
  for (const char* quiet : {"GET_BOOT_MODE", "GET_VERSION", "SPI_"}) {
    if (e.text.rfind(quiet, 0) == 0) return false;
  }
  return true;
}

// True once the daemon has switched the co-processor to FLASH after a
// download: SET_BOOT_MODE 1 followed by BOOT_STATUS 1, from `from` on.
bool switched_to_flash(const std::vector<ControlRequest>& requests, size_t from) {
  bool set_flash = false;
  for (size_t i = from; i < requests.size(); ++i) {
    const ControlRequest& r = requests[i];
    if (r.name() == "SET_BOOT_MODE") set_flash = r.value == kBootModeFlash;
    if (set_flash && r.name() == "BOOT_STATUS" && r.value == 1) return true;
  }
  return false;
}

bool reported_status_1(const std::vector<ControlRequest>& requests, size_t from) {
  for (size_t i = from; i < requests.size(); ++i) {
    if (requests[i].name() == "BOOT_STATUS" && requests[i].value == 1) return true;
  }
  return false;
}

// Follows the device until `done` or the time-out; false on time-out or
// when the daemon ended.
bool watch(VirtualDevice& device, DaemonProcess& daemon, TerminalView& view, uint64_t total_bytes,
           const std::function<bool()>& done, int timeout_s) {
  size_t cursor = device.events().size();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  while (std::chrono::steady_clock::now() < deadline) {
    for (const DeviceEvent& e : device.events().since(cursor)) {
      if (interesting(e)) view.event(e);
    }
    view.properties(device.root(), kWatchedProperties);
    DfuStatus s = device.dfu().status();
    if (s.sessions_started > 0 && s.session_bytes > 0) view.progress("download", s.session_bytes, total_bytes);
    if (done()) return true;
    if (!daemon.alive()) {
      view.line("marlod ended unexpectedly");
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  view.line("timed out");
  return false;
}

}  // namespace

int run_demo(const DemoOptions& options, FILE* out) {
  TerminalView view(out);
  std::string root = make_temp_root("marlo-demo");
  FirmwareSet shipped = VirtualDevice::build_sample_root(root);
  // A device that was updated before and has just received new firmware
  // files: the co-processor still runs the older firmware from its flash.
  set_property(root, "persist.vendor.zt_aon.dfu_update", "1");
  uint64_t total_bytes = 0;
  for (const auto& entry : shipped.images) total_bytes += entry.second.size();

  view.line("Virtual Marlo at " + root);
  view.line("  flash holds " + older_versions().apps + ", the device ships " + shipped.versions.apps);
  view.line("  " + std::to_string(shipped.images.size()) + " images, " + std::to_string(total_bytes / 1024) +
            " KiB to download; daemon: " + options.marlod);

  DeviceOptions device_options;
  device_options.flash = FlashContents::Older;
  device_options.dfu.write_delay_ms = options.write_delay_ms;
  device_options.capture_file = options.capture_file;
  auto device_owner = std::make_unique<VirtualDevice>(root, device_options);
  VirtualDevice& device = *device_owner;
  std::vector<std::string> failures;

  // First boot: the versions differ, the daemon updates the flash.
  view.line("\n== First boot: marlod finds older firmware and updates it");
  DaemonSettings settings{options.marlod, root, root + "/sim/marlod-1.log", root + "/sim/marlod-1.stderr",
                          options.time_scale};
  auto started = std::chrono::steady_clock::now();
  {
    DaemonProcess daemon(settings);
    std::string error;
    if (!daemon.start(&error)) {
      view.line("cannot run the daemon: " + error);
      return 2;
    }
    bool updated = watch(
        device, daemon, view, total_bytes,
        [&] {
          return device.dfu().status().sessions_completed >= 1 && device.coprocessor().running() &&
                 switched_to_flash(device.driver().requests(), 0);
        },
        45);
    if (!updated) failures.push_back("the update did not complete");
  }
  double update_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  view.line("\n== Verifying the virtual flash against the shipped images");
  std::vector<std::string> problems = verify_flash(device.flash(), shipped, expected_platform_block(RootOptions{}));
  for (const std::string& p : problems) view.line("  MISMATCH: " + p);
  if (problems.empty()) {
    view.line("  every image matches byte for byte; flash.bin carries the patched platform block");
    view.line("  erasable partitions erased, the others untouched");
  } else {
    failures.push_back("the flash does not hold the shipped firmware");
  }
  if (get_property(root, "persist.vendor.zt_aon.dfu_update") != "1") failures.push_back("dfu_update is not 1");

  // Second boot: the device reboots, the daemon starts again and finds the
  // versions that it shipped.
  view.line("\n== Second boot: device reboot, marlod starts again");
  device.power_cycle();
  size_t requests_before = device.driver().requests().size();
  int sessions_before = device.dfu().status().sessions_started;
  settings.log_file = root + "/sim/marlod-2.log";
  settings.stderr_file = root + "/sim/marlod-2.stderr";
  {
    DaemonProcess daemon(settings);
    std::string error;
    if (!daemon.start(&error)) {
      view.line("cannot run the daemon: " + error);
      return 2;
    }
    bool matched = watch(
        device, daemon, view, total_bytes,
        [&] {
          return log_contains(settings.log_file, "Marlo firmware versions are MATHCHED") &&
                 reported_status_1(device.driver().requests(), requests_before);
        },
        30);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // no download may follow
    if (matched) view.line("  marlod: \"Marlo firmware versions are MATHCHED, skip fw_update\"");
    if (!matched) failures.push_back("the second boot did not find the versions matched");
    if (device.dfu().status().sessions_started != sessions_before)
      failures.push_back("the second boot downloaded again");
  }
  std::optional<FirmwareManifest> running = device.coprocessor().running_firmware();
  if (!running || running->apps != shipped.versions.apps)
    failures.push_back("the co-processor does not run the new firmware");

  DfuStatus dfu = device.dfu().status();
  view.line("\n== Summary");
  view.line("  update took " + std::to_string(static_cast<int>(update_s * 10) / 10.0).substr(0, 4) +
            " s: " + std::to_string(dfu.erases.size()) + " erases, " + std::to_string(dfu.fragments) + " fragments, " +
            std::to_string(dfu.crc_errors) + " CRC errors");
  view.line("  running firmware: " + (running ? running->apps : std::string("none")));
  if (failures.empty()) view.line("  second boot: versions matched, nothing downloaded");
  for (const std::string& f : failures) view.line("  FAILED: " + f);
  if (!options.capture_file.empty()) view.line("  capture of the session: " + options.capture_file);
  view.line(failures.empty() ? "  RESULT: update verified" : "  RESULT: FAILED (logs kept in " + root + "/sim)");
  device_owner.reset();
  if (failures.empty() && !options.keep_root) {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  } else {
    view.line("  device root kept at " + root);
  }
  return failures.empty() ? 0 : 1;
}

}  // namespace marlo::sim
