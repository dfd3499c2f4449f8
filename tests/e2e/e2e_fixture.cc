#include "e2e_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim/device_root.h"
#include "sim/flash_check.h"
#include "support/wakelock_records.h"

namespace marlo::e2e {

namespace {

// User and system time of the whole process (threads that ended included),
// in seconds; 0 when it cannot be read.
double cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end_of_name = text.rfind(')');
  if (end_of_name == std::string::npos) return 0;
  std::istringstream fields(text.substr(end_of_name + 2));
  // Fields from the state (3rd) on: utime and stime are the 14th and 15th.
  std::string skipped;
  for (int number = 3; number < 14; ++number) fields >> skipped;
  unsigned long long utime = 0, stime = 0;
  fields >> utime >> stime;
  return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

long file_size(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

}  // namespace

sim::DeviceOptions noflash_options() {
  sim::DeviceOptions options;
  options.variant = sim::Variant::NoflashPsram;
  options.flash = sim::FlashContents::Empty;
  options.running_at_start = true;
  return options;
}

DaemonRig::DaemonRig(double time_scale) : time_scale_(time_scale) {
  root_ = sim::make_temp_root("marlo-e2e");
  shipped_ = sim::VirtualDevice::build_sample_root(root_);
}

DaemonRig::~DaemonRig() { discard_root(keep_root_); }

void DaemonRig::discard_root(bool keep) {
  daemon_.reset();
  device_.reset();
  if (keep) {
    std::fprintf(stderr, "device root kept for inspection: %s\n", root_.c_str());
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

void DaemonRig::renew_root(bool keep_old) {
  discard_root(keep_old);
  root_ = sim::make_temp_root("marlo-e2e");
  shipped_ = sim::VirtualDevice::build_sample_root(root_);
  starts_ = 0;
}

void DaemonRig::start_device(sim::DeviceOptions options) {
  device_ = std::make_unique<sim::VirtualDevice>(root_, std::move(options));
}

std::string DaemonRig::launch_daemon() {
  std::string error;
  daemon_ = sim::start_built_marlod(root_, ++starts_, time_scale_, &log_file_, &error);
  return error;
}

int DaemonRig::log_count(const std::string& text) const {
  std::ifstream in(log_file_);
  std::string line;
  int count = 0;
  while (std::getline(in, line)) count += line.find(text) != std::string::npos;
  return count;
}

std::string DaemonRig::property(const std::string& name) const { return sim::get_property(root_, name, "<unset>"); }

void DaemonRig::set_property(const std::string& name, const std::string& value) const {
  sim::set_property(root_, name, value);
}

int DaemonRig::request_index(const std::string& name, long value, size_t from) const {
  std::vector<sim::ControlRequest> requests = device_->driver().requests();
  for (size_t i = from; i < requests.size(); ++i) {
    // Compared in 64 bits: a long is 32 bits on the device ABI.
    if (requests[i].name() == name && (value < 0 || static_cast<int64_t>(requests[i].value) == value)) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

bool DaemonRig::update_finished() const {
  if (device_->dfu().status().sessions_completed < 1) return false;
  int to_flash = request_index("SET_BOOT_MODE", sim::kBootModeFlash);
  return to_flash >= 0 && request_index("BOOT_STATUS", 1, static_cast<size_t>(to_flash)) >= 0;
}

std::string DaemonRig::flash_problem() const {
  std::vector<std::string> problems =
      sim::verify_flash(device_->flash(), shipped_, sim::expected_platform_block(sim::RootOptions{}));
  return problems.empty() ? "" : problems.front();
}

size_t DaemonRig::wakelock_takes() const {
  return test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_lock"));
}

size_t DaemonRig::wakelock_releases() const {
  return test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_unlock"));
}

bool DaemonRig::wakelock_released() const {
  const size_t takes = wakelock_takes();
  return takes > 0 && wakelock_releases() == takes;
}

DaemonRig::Activity DaemonRig::activity_over(std::chrono::milliseconds window) const {
  const pid_t pid = daemon_->pid();
  const double cpu_before = cpu_seconds(pid);
  Activity activity;
  const long log_from = file_size(log_file_);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(window);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  activity.core_share = (cpu_seconds(pid) - cpu_before) / seconds;
  activity.log_bytes_per_second = static_cast<double>(file_size(log_file_) - log_from) / seconds;
  return activity;
}

void E2e::TearDown() { keep_root_ = HasFailure(); }

void E2e::start_device(sim::DeviceOptions options) {
  ++devices_;
  const char* capture_dir = std::getenv("MARLO_CAPTURE_DIR");
  if (options.capture_file.empty() && capture_dir != nullptr && *capture_dir != '\0') {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '_');  // parameterised tests
    if (devices_ > 1) name += "-" + std::to_string(devices_);
    options.capture_file = std::string(capture_dir) + "/" + name + ".pcapng";
  }
  DaemonRig::start_device(std::move(options));
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

void E2e::expect_flash_holds_shipped_firmware() const {
  EXPECT_EQ(flash_problem(), "");
  std::optional<sim::FirmwareManifest> running = device_->coprocessor().running_firmware();
  ASSERT_TRUE(running.has_value()) << "the co-processor is not running";
  EXPECT_EQ(running->apps, shipped_.versions.apps);
  EXPECT_EQ(device_->coprocessor().boot_mode(), sim::kBootModeFlash);
}

}  // namespace marlo::e2e
