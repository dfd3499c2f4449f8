#include "e2e_fixture.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "sim/device_root.h"
#include "sim/flash_check.h"
#include "support/wakelock_records.h"

namespace marlo::e2e {

namespace {
// Keeps the daemon's fixed waits (1 s per boot attempt, 2 s after misc data)
// at a few milliseconds.
constexpr double kTimeScale = 0.01;
}  // namespace

sim::DeviceOptions noflash_options() {
  sim::DeviceOptions options;
  options.variant = sim::Variant::NoflashPsram;
  options.flash = sim::FlashContents::Empty;
  options.running_at_start = true;
  return options;
}

void E2e::SetUp() {
  root_ = sim::make_temp_root("marlo-e2e");
  shipped_ = sim::VirtualDevice::build_sample_root(root_);
}

void E2e::TearDown() {
  daemon_.reset();
  device_.reset();
  if (HasFailure()) {
    std::fprintf(stderr, "device root kept for inspection: %s\n", root_.c_str());
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

void E2e::start_device(sim::DeviceOptions options) {
  ++devices_;
  const char* capture_dir = std::getenv("MARLO_CAPTURE_DIR");
  if (options.capture_file.empty() && capture_dir != nullptr && *capture_dir != '\0') {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    for (char& c : name) {
      if (c == '/') c = '_';  // parameterised tests
    }
    if (devices_ > 1) name += "-" + std::to_string(devices_);
    options.capture_file = std::string(capture_dir) + "/" + name + ".pcapng";
  }
  device_ = std::make_unique<sim::VirtualDevice>(root_, std::move(options));
}

void E2e::start_daemon() {
  std::string error;
  daemon_ = sim::start_built_marlod(root_, ++starts_, kTimeScale, &log_file_, &error);
  ASSERT_NE(daemon_, nullptr) << error;
}

bool E2e::wait_for(const std::function<bool()>& condition, int timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    if (daemon_ && !daemon_->alive()) {
      ADD_FAILURE() << "marlod ended; its log is in " << log_file_;
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

int E2e::log_count(const std::string& text) const {
  std::ifstream in(log_file_);
  std::string line;
  int count = 0;
  while (std::getline(in, line)) count += line.find(text) != std::string::npos;
  return count;
}

std::string E2e::property(const std::string& name) const { return sim::get_property(root_, name, "<unset>"); }

void E2e::set_property(const std::string& name, const std::string& value) const {
  sim::set_property(root_, name, value);
}

int E2e::request_index(const std::string& name, long value, size_t from) const {
  std::vector<sim::ControlRequest> requests = device_->driver().requests();
  for (size_t i = from; i < requests.size(); ++i) {
    // Compared in 64 bits: a long is 32 bits on the device ABI.
    if (requests[i].name() == name && (value < 0 || static_cast<int64_t>(requests[i].value) == value)) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool E2e::update_finished() const {
  if (device_->dfu().status().sessions_completed < 1) return false;
  int to_flash = request_index("SET_BOOT_MODE", sim::kBootModeFlash);
  return to_flash >= 0 && request_index("BOOT_STATUS", 1, static_cast<size_t>(to_flash)) >= 0;
}

bool E2e::wakelock_released() const {
  const size_t acquired = test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_lock"));
  return acquired > 0 && test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_unlock")) == acquired;
}

void E2e::expect_flash_holds_shipped_firmware() const {
  std::vector<std::string> problems =
      sim::verify_flash(device_->flash(), shipped_, sim::expected_platform_block(sim::RootOptions{}));
  EXPECT_TRUE(problems.empty()) << problems.front();
  std::optional<sim::FirmwareManifest> running = device_->coprocessor().running_firmware();
  ASSERT_TRUE(running.has_value()) << "the co-processor is not running";
  EXPECT_EQ(running->apps, shipped_.versions.apps);
  EXPECT_EQ(device_->coprocessor().boot_mode(), sim::kBootModeFlash);
}

}  // namespace marlo::e2e
