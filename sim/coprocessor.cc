#include "sim/coprocessor.h"

#include <chrono>
#include <cstring>
#include <fstream>

#include "sim/device_root.h"
#include "sim/uevent_sender.h"

namespace marlo::sim {

namespace {
constexpr size_t kVersionRecordSize = 308;
constexpr size_t kVersionTextSize = 100;
const char* mode_name(int mode) { return mode == kBootModeHost ? "HOST" : mode == kBootModeFlash ? "FLASH" : "?"; }

void put_text(Bytes& record, size_t offset, const std::string& text) {
  size_t n = std::min(text.size(), kVersionTextSize - 1);
  std::memcpy(record.data() + offset, text.data(), n);
}
}  // namespace

CoProcessor::CoProcessor(std::string root, VirtualFlash& flash, EventLog& log, Variant variant)
    : root_(std::move(root)), flash_(flash), log_(log), variant_(variant) {
  write_text_atomic(root_ + kRemoteprocState, "offline\n");
}

CoProcessor::~CoProcessor() {
  std::lock_guard<std::mutex> lock(restart_mutex_);
  if (restart_thread_.joinable()) restart_thread_.join();
}

int CoProcessor::boot_mode() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return boot_mode_;
}

void CoProcessor::set_boot_mode(int mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  boot_mode_ = mode;
}

bool CoProcessor::running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

uint64_t CoProcessor::boots() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return boots_;
}

std::optional<FirmwareManifest> CoProcessor::host_image_manifest() const {
  std::ifstream in(root_ + "/vendor/firmware_mnt/image/flash.bin", std::ios::binary);
  if (!in) return std::nullopt;
  Bytes image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return find_manifest(image);
}

int CoProcessor::load() {
  std::lock_guard<std::mutex> power(power_mutex_);
  int mode = boot_mode();
  if (running()) return 0;
  std::optional<FirmwareManifest> firmware;
  // A co-processor without flash always runs what the host loads into PSRAM.
  if (mode == kBootModeFlash && variant_ == Variant::Flash) {
    if (flash_load_failures_.load() > 0) {
      --flash_load_failures_;
      log_.add("co-processor", "FLASH boot failed (injected fault)");
      return EIO;
    }
    firmware = flash_.bootable_manifest();
    if (!firmware) {
      log_.add("co-processor", "FLASH boot failed: no bootable firmware in flash");
      return EIO;
    }
  } else {
    firmware = host_image_manifest();
    if (!firmware) firmware = FirmwareManifest{"UNKNOWN", "", "", 0, 0, 0, 0};
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    firmware_ = firmware;
    ++boots_;
  }
  set_running(true, std::string("booted in ") + mode_name(mode) + " mode, apps " + firmware->apps);
  notify(true);
  return 0;
}

void CoProcessor::unload(const std::string& why) {
  std::lock_guard<std::mutex> power(power_mutex_);
  if (!running()) return;
  set_running(false, why);
  notify(false);
}

void CoProcessor::restart(int offline_ms) {
  log_.add("co-processor", "subsystem restart");
  unload("restart: going down");
  send_uevent(root_, marlo_uevent(kEventPowerDown));
  std::this_thread::sleep_for(std::chrono::milliseconds(offline_ms));
  if (load() == 0) send_uevent(root_, marlo_uevent(kEventPowerUp));
}

void CoProcessor::restart_async(int offline_ms) {
  std::lock_guard<std::mutex> lock(restart_mutex_);
  if (restart_thread_.joinable()) restart_thread_.join();
  restart_thread_ = std::thread([this, offline_ms] { restart(offline_ms); });
}

void CoProcessor::power_cycle() {
  unload("device power cycle");
  std::lock_guard<std::mutex> lock(mutex_);
  boot_mode_ = kBootModeFlash;
  log_.add("co-processor", "device power cycle: boot mode back to FLASH");
}

std::optional<FirmwareManifest> CoProcessor::running_firmware() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!running_) return std::nullopt;
  return firmware_;
}

std::optional<Bytes> CoProcessor::version_record() const {
  std::optional<FirmwareManifest> fw = running_firmware();
  if (!fw) return std::nullopt;
  Bytes record(kVersionRecordSize, 0);
  put_u32(record, 0, 0x4D524C4F);  // the co-processor's record tag
  put_u32(record, 4, fw->kapi);
  std::string apps = fw->apps;
  if (variant_ == Variant::NoflashPsram) apps += ".NOFLASH_PSRAM";
  put_text(record, 8, apps);
  put_text(record, 108, fw->dsp);
  put_text(record, 208, fw->bt);
  return record;
}

void CoProcessor::add_power_listener(std::function<void(bool)> listener) {
  std::lock_guard<std::mutex> lock(mutex_);
  listeners_.push_back(std::move(listener));
}

void CoProcessor::set_running(bool running, const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = running;
  }
  write_text_atomic(root_ + kRemoteprocState, running ? "running\n" : "offline\n");
  log_.add("co-processor", std::string(running ? "running: " : "offline: ") + why);
}

void CoProcessor::notify(bool up) {
  std::vector<std::function<void(bool)>> listeners;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    listeners = listeners_;
  }
  for (auto& listener : listeners) listener(up);
}

}  // namespace marlo::sim
