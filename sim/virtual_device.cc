#include "sim/virtual_device.h"

#include <cerrno>

#include "sim/device_root.h"

namespace marlo::sim {

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
  coprocessor_->add_power_listener([this](bool up) { on_power(up); });
  for (ChannelServer* channel : {static_cast<ChannelServer*>(dfu_.get()), static_cast<ChannelServer*>(misc_.get()),
                                 static_cast<ChannelServer*>(rma_.get())}) {
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
}

void VirtualDevice::on_power(bool up) {
  // A channel of a co-processor that is down cannot be opened, and every
  // open one hangs up.
  for (ChannelServer* channel : {static_cast<ChannelServer*>(dfu_.get()), static_cast<ChannelServer*>(misc_.get()),
                                 static_cast<ChannelServer*>(rma_.get())}) {
    channel->node().refuse_opens(up ? 0 : ENODEV);
    if (!up) channel->hang_up_all();
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

void VirtualDevice::power_cycle() { coprocessor_->power_cycle(); }

}  // namespace marlo::sim
