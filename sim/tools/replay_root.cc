#include "sim/tools/replay_root.h"

#include <filesystem>
#include <sstream>

#include "sim/capture/session_capture.h"
#include "sim/control_driver.h"
#include "sim/coprocessor.h"
#include "sim/device_root.h"
#include "sim/virtual_device.h"

namespace fs = std::filesystem;

namespace marlo::sim {

namespace {

constexpr size_t kControlBlock = 4;  // offset of the request block in a control request

// The daemon's control requests in the order recorded, with the result
// word of each one's answer.
struct Request {
  uint32_t request = 0;
  uint32_t cmd = 0;
  bool answered = false;
  int32_t result = 0;

  bool boot(uint32_t boot_cmd) const { return request == kReqBoot && cmd == boot_cmd; }
  // Sent by the boot progress or a second boot-mode query on other threads.
  bool aside() const { return boot(kCmdGetBootMode) || boot(kCmdBootStatus); }
};

std::vector<Request> control_requests(const CaptureFile& capture) {
  const auto control = static_cast<uint32_t>(CaptureInterface::Control);
  std::vector<Request> requests;
  const auto& packets = capture.packets;
  for (size_t i = 0; i < packets.size(); ++i) {
    const CapturedPacket& p = packets[i];
    if (p.interface != control || p.data.empty() || (p.flags & 3) != static_cast<uint32_t>(Direction::Outbound)) {
      continue;
    }
    Request r;
    r.request = get_u32(p.data, 0);
    r.cmd = get_u32(p.data, kControlBlock + 20);
    // Its answer: the next one on its connection (on the node when the
    // capture gives no connections).
    for (size_t j = i + 1; j < packets.size(); ++j) {
      const CapturedPacket& a = packets[j];
      if (a.interface == control && !a.data.empty() && (a.flags & 3) == static_cast<uint32_t>(Direction::Inbound) &&
          a.stream == p.stream) {
        r.answered = a.data.size() >= 4;
        r.result = static_cast<int32_t>(get_u32(a.data, 0));
        break;
      }
    }
    requests.push_back(r);
  }
  return requests;
}

// The first request from `from` that the boot sequence itself sent.
size_t next_decisive(const std::vector<Request>& requests, size_t from) {
  while (from < requests.size() && requests[from].aside()) ++from;
  return from;
}

}  // namespace

void build_root_from_setup(const std::string& root, const std::string& setup) {
  VirtualDevice::build_sample_root(root);
  std::istringstream in(setup);
  std::string line;
  bool running = false;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq), value = line.substr(eq + 1);
    if (key == "running") running = value == "1";
    if (key.rfind("property.", 0) == 0) set_property(root, key.substr(9), value);
  }
  write_text_atomic(root + kRemoteprocState, running ? "running\n" : "offline\n");
}

bool build_root_from_images(const std::string& root, const std::string& images, const CaptureFile& capture,
                            std::vector<std::string>* notes, std::string* error) {
  std::error_code failure;
  if (!fs::is_regular_file(fs::path(images) / "firmware_mnt/image/partition_table.xml", failure)) {
    *error = images +
             " holds no firmware_mnt/image/partition_table.xml (give the device's /vendor firmware "
             "directories: firmware_mnt/ and bt_firmware/)";
    return false;
  }
  const std::vector<Request> requests = control_requests(capture);
  size_t first_mode = 0;
  while (first_mode < requests.size() && !requests[first_mode].boot(kCmdGetBootMode)) ++first_mode;
  bool twm_exit = false;
  for (size_t i = 0; i < first_mode; ++i) twm_exit = twm_exit || requests[i].boot(kCmdTwmExit);

  RootOptions options;
  options.twm_exit_pending = twm_exit;
  if (first_mode == requests.size()) options.platform_subtype = "1";
  build_device_root(root, options);
  fs::remove_all(fs::path(root) / "vendor/bt_firmware", failure);
  fs::copy(images, fs::path(root) / "vendor", fs::copy_options::recursive | fs::copy_options::overwrite_existing,
           failure);
  if (failure) {
    *error = "cannot copy " + images + " into the device root: " + failure.message();
    return false;
  }
  if (!fs::exists(fs::path(images) / "bt_firmware/image")) {
    notes->push_back("no bt_firmware/image in " + images + ": the daemon finds no misc-data files");
  }

  notes->push_back(std::string("TWM exit ") +
                   (twm_exit ? "pending (TWM_EXIT recorded before the first GET_BOOT_MODE)" : "not pending"));
  bool running = false;
  if (first_mode == requests.size()) {
    notes->push_back("no GET_BOOT_MODE recorded: platform_subtype_id 1 (unsupported)");
  } else if (!requests[first_mode].answered) {
    notes->push_back("the first GET_BOOT_MODE has no recorded answer: co-processor off at start");
  } else {
    const int32_t mode = requests[first_mode].result;
    size_t decisive = next_decisive(requests, first_mode + 1);
    bool updates = mode == kBootModeFlash && decisive < requests.size() && requests[decisive].boot(kCmdSetBootMode);
    if (mode == kBootModeFlash && !updates) {
      set_property(root, "persist.vendor.zt_aon.dfu_update", "1");
      notes->push_back("FLASH mode kept: persist.vendor.zt_aon.dfu_update=1");
    } else if (updates) {
      notes->push_back("FLASH mode left for HOST: persist.vendor.zt_aon.dfu_update unset; co-processor off at start");
    }
    if (!updates) {
      running = decisive < requests.size() && requests[decisive].request != kReqSpiBusy;
      notes->push_back(running ? "co-processor running at start (the daemon did not load it)"
                               : "co-processor off at start (the daemon loaded it)");
    }
  }
  write_text_atomic(root + kRemoteprocState, running ? "running\n" : "offline\n");
  notes->push_back(
      "assumed: hw_platform WDP, dload_mode mini, "
      "ro.vendor.zt_aon_presence=1 and no other property, RMA backing files empty");
  return true;
}

}  // namespace marlo::sim
