// The whole virtual device on one root: the co-processor, its kernel
// driver on the control device, the three packet channels and the virtual
// flash, wired together, plus the faults that can be injected.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sim/capture/session_capture.h"
#include "sim/control_driver.h"
#include "sim/coprocessor.h"
#include "sim/dfu_coprocessor.h"
#include "sim/event_log.h"
#include "sim/misc_data_receiver.h"
#include "sim/rma_client.h"
#include "sim/sample_firmware.h"
#include "sim/virtual_flash.h"

namespace marlo::sim {

// What the flash holds when the device is created.
enum class FlashContents { Empty, Older, Shipped };

struct DeviceOptions {
  Variant variant = Variant::Flash;
  FlashContents flash = FlashContents::Older;
  bool running_at_start = false;  // the co-processor is already up
  DfuConfig dfu;                  // image ids default to the shipped set's
  uint32_t misc_max_payload = MiscDataReceiver::kDefaultMaxPayload;
  RmaConfig rma;
  int restart_offline_ms = 300;  // offline time of a restart fault
  // When set, the whole session is recorded there (pcapng, see
  // sim/capture/session_capture.h).
  std::string capture_file;
};

// The setup of a device as the capture's section comment holds it: one
// "key=value" per line (variant, flash, running, fragment-size,
// write-delay-ms, misc-max-payload, rma-block-size, rma-read-only) and one
// "property.NAME=VALUE" per property the root holds when the device starts.
std::string capture_setup(const DeviceOptions& options, const std::string& root);

class VirtualDevice {
 public:
  // Serves an existing root (built with build_device_root and holding the
  // shipped firmware), with the flash prepared as the options say.
  VirtualDevice(std::string root, DeviceOptions options);
  ~VirtualDevice();
  VirtualDevice(const VirtualDevice&) = delete;
  VirtualDevice& operator=(const VirtualDevice&) = delete;

  // Creates a complete sample root: device tree, shipped firmware.
  static FirmwareSet build_sample_root(const std::string& root);

  const std::string& root() const { return root_; }
  EventLog& events() { return log_; }
  CoProcessor& coprocessor() { return *coprocessor_; }
  ControlDriver& driver() { return *driver_; }
  DfuCoprocessor& dfu() { return *dfu_; }
  MiscDataReceiver& misc() { return *misc_; }
  RmaClient& rma() { return *rma_; }
  VirtualFlash& flash() { return flash_; }

  // Faults.
  void drop_dfu_after(int fragments) { dfu_->drop_after_fragments(fragments); }
  void drop_dfu_at(std::vector<int> fragment_counts) { dfu_->drop_at_fragments(std::move(fragment_counts)); }
  void busy_control_opens(int opens);
  void fail_flash_loads(int loads) { coprocessor_->fail_flash_loads(loads); }
  void restart_during_rma(int messages);
  // Packets the co-processor has received on its three channels since the
  // device was created.
  int packets_received() const;
  // Calls `action` on the channel's thread when the co-processor has
  // received its `packet`th packet, before it handles it; the packet is
  // dropped when `action` returns true.
  void at_packet(int packet, std::function<bool()> action);
  // A subsystem restart as a packet arrives, for at_packet: the packet is
  // never handled (returns true).
  bool restart_on_packet();
  // A subsystem restart now (power-down and power-up uevents).
  void restart() { coprocessor_->restart(options_.restart_offline_ms); }
  // The whole device reboots: the co-processor powers off and its boot mode
  // returns to FLASH; properties and files stay (persistent storage).
  void power_cycle();

 private:
  // The three packet channels: DFU, misc data, RMA.
  std::array<ChannelServer*, 3> channels() const;
  void on_power(bool up);
  bool count_packet();

  std::string root_;
  DeviceOptions options_;
  EventLog log_;
  VirtualFlash flash_;
  std::unique_ptr<CoProcessor> coprocessor_;
  std::unique_ptr<ControlDriver> driver_;
  std::unique_ptr<DfuCoprocessor> dfu_;
  std::unique_ptr<MiscDataReceiver> misc_;
  std::unique_ptr<RmaClient> rma_;
  std::shared_ptr<SessionCapture> capture_;
  mutable std::mutex packets_mutex_;
  int packets_ = 0;  // guarded by packets_mutex_, as are the two below
  int cut_at_ = 0;
  std::function<bool()> cut_action_;
};

}  // namespace marlo::sim
