#include "sim/virtual_device.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "sim/device_root.h"

namespace marlo::sim {

std::string capture_setup(const DeviceOptions& o, const std::string& root) {
  std::ostringstream out;
  out << "variant=" << (o.variant == Variant::NoflashPsram ? "noflash" : "flash") << "\n";
  out << "flash="
      << (o.flash == FlashContents::Empty     ? "empty"
          : o.flash == FlashContents::Shipped ? "shipped"
                                              : "older")
      << "\n";
  out << "running=" << (o.running_at_start ? 1 : 0) << "\n";
  out << "fragment-size=" << o.dfu.fragment_size << "\n";
  out << "write-delay-ms=" << o.dfu.write_delay_ms << "\n";
  out << "misc-max-payload=" << o.misc_max_payload << "\n";
  out << "rma-block-size=" << o.rma.block_size << "\n";
  out << "rma-read-only=" << (o.rma.read_only ? 1 : 0) << "\n";
  std::error_code ignored;
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(root + "/dev/__properties__", ignored)) {
    std::string name = entry.path().filename().string();
    if (entry.is_regular_file() && name.find('.') != 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) out << "property." << name << "=" << get_property(root, name) << "\n";
  return out.str();
}

FirmwareSet VirtualDevice::build_sample_root(const std::string& root) {
  build_device_root(root, RootOptions{});
  FirmwareSet shipped = make_firmware_set(shipped_versions());
  install_firmware(root, shipped);
  return shipped;
}

VirtualDevice::VirtualDevice(std::string root, DeviceOptions options)
    : root_(std::move(root)), options_(std::move(options)), flash_(root_ + "/sim/flash") {
  if (options_.flash == FlashContents::Older) flash_.program(make_firmware_set(older_versions()));
  if (options_.flash == FlashContents::Shipped) flash_.program(make_firmware_set(shipped_versions()));
  if (options_.dfu.image_ids.empty() || options_.dfu.image_ids == DfuConfig{}.image_ids) {
    options_.dfu.image_ids = make_firmware_set(shipped_versions()).image_ids();
  }

  coprocessor_ = std::make_unique<CoProcessor>(root_, flash_, log_, options_.variant);
  driver_ = std::make_unique<ControlDriver>(root_, *coprocessor_, log_);
  dfu_ = std::make_unique<DfuCoprocessor>(root_, flash_, log_, options_.dfu);
  misc_ = std::make_unique<MiscDataReceiver>(root_, log_, options_.misc_max_payload);
  rma_ = std::make_unique<RmaClient>(root_, log_, options_.rma);
  if (!options_.capture_file.empty()) {
    capture_ = std::make_shared<SessionCapture>(options_.capture_file, capture_setup(options_, root_));
    attach_capture(root_, capture_);
    driver_->set_capture(capture_, CaptureInterface::Control);
    dfu_->set_capture(capture_, CaptureInterface::Dfu);
    misc_->set_capture(capture_, CaptureInterface::Misc);
    rma_->set_capture(capture_, CaptureInterface::Rma);
  }
  coprocessor_->add_power_listener([this](bool up) { on_power(up); });
  // What the daemon wrote before it told the co-processor to go down reached
  // it: the session's last answer is handled before the unload that follows.
  driver_->set_before_host_unload([this] {
    for (ChannelServer* channel : channels()) {
      channel->deliver_pending(std::chrono::milliseconds(500));
    }
  });
  for (ChannelServer* channel : channels()) {
    channel->set_packet_observer([this] { return count_packet(); });
  }
  on_power(false);

  if (options_.running_at_start) {
    if (options_.variant == Variant::NoflashPsram) coprocessor_->set_boot_mode(kBootModeHost);
    coprocessor_->load();
  }
  driver_->start();
  dfu_->start();
  misc_->start();
  rma_->start();
}

VirtualDevice::~VirtualDevice() {
  // Stop the channel threads before the objects they call go away.
  rma_->stop();
  misc_->stop();
  dfu_->stop();
  driver_->stop();
  coprocessor_.reset();
  if (capture_) detach_capture(root_, capture_.get());
}

std::array<ChannelServer*, 3> VirtualDevice::channels() const { return {dfu_.get(), misc_.get(), rma_.get()}; }

void VirtualDevice::on_power(bool up) {
  // A channel of a co-processor that is down cannot be opened, and every
  // open one hangs up.
  for (ChannelServer* channel : channels()) {
    channel->node().refuse_opens(up ? 0 : ENODEV);
    if (!up) channel->hang_up_all();
  }
  // A channel, or the driver, broken by a read fault works again once the
  // co-processor has gone down.
  if (!up) {
    for (ChannelServer* channel : channels()) channel->end_read_fault();
    driver_->end_read_fault();
  }
  if (!up) dfu_->reset_state();
  rma_->on_power(up);
}

void VirtualDevice::busy_control_opens(int opens) {
  driver_->node().fail_opens(opens, EBUSY);
  log_.add("driver", "fault: the next " + std::to_string(opens) + " opens are busy");
}

void VirtualDevice::restart_during_rma(int messages) {
  rma_->restart_after_messages(messages, [this] { coprocessor_->restart_async(options_.restart_offline_ms); });
}

int VirtualDevice::packets_received() const {
  std::lock_guard<std::mutex> lock(packets_mutex_);
  return packets_;
}

void VirtualDevice::at_packet(int packet, std::function<bool()> action) {
  std::lock_guard<std::mutex> lock(packets_mutex_);
  cut_at_ = packet;
  cut_action_ = std::move(action);
}

bool VirtualDevice::count_packet() {
  std::function<bool()> action;
  {
    std::lock_guard<std::mutex> lock(packets_mutex_);
    if (++packets_ == cut_at_) action = std::move(cut_action_);
  }
  return action ? action() : false;
}

bool VirtualDevice::restart_on_packet() {
  log_.add("co-processor", "fault: restart as packet " + std::to_string(packets_received()) + " arrives");
  // On the channel's thread: the channels hang up before any later packet
  // is taken, and the channel stays silent while the co-processor is down.
  coprocessor_->restart(options_.restart_offline_ms);
  return true;
}

void VirtualDevice::power_cycle() {
  // The daemon's run ends with the device's: a replay stops here.
  if (capture_) capture_->life(CaptureInterface::Control, Direction::Inbound, "device power cycle");
  coprocessor_->power_cycle();
}

}  // namespace marlo::sim
