// The read-fault matrix: every place where the daemon reads from the
// co-processor, against every way that read can break down. For each cell
// the daemon must react within a bound, wait afterwards on less than 5% of a
// core and less than 64 KiB of log a second, give back every wakelock
// reference, and bring the co-processor back into service at its next
// power-up. Each row is one test; its four cells run side by side, each with
// a device and a daemon of its own. Every cell prints its figures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/flash_check.h"
#include "sim/read_fault.h"
#include "sim/virtual_device.h"
#include "support/wait_until.h"
#include "support/wakelock_records.h"

namespace marlo::e2e {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using sim::ReadFault;

// The daemon runs at its own pace (time scale 1): the bounds are rates per
// second of the daemon's time, and a scaled daemon would retry, back off and
// count its log lines a hundred times faster than on a device.
constexpr double kTimeScale = 1;
// The DFU row's restart outlasts the transport's own reopen attempts (three,
// a second apart), so that the power-up itself must take the download up.
constexpr int kLongRestartMs = 4000;
constexpr auto kReactionBound = 20s;
constexpr auto kWindow = 3s;  // the wait measured after the reaction
constexpr double kMaxCpuPercent = 5.0;
constexpr double kMaxLogBytesPerSecond = 64 * 1024;

enum class Reader { ControlAnswer, DfuReader, RmaReader, MiscAnswer };

struct Row {
  Reader reader;
  const char* id;  // the test's name
  const char* name;
  // The packet of the co-processor (sent, or for a read error received)
  // that the fault breaks, counted from the arming.
  int packet;
};

constexpr Row kRows[] = {
    // Armed once the co-processor is in service; the reset property makes
    // the daemon issue the request whose answer breaks.
    {Reader::ControlAnswer, "ControlAnswer", "control-device answer (reset request)", 1},
    // The co-processor asks for fragments; its seventh packet is in the
    // first image's fragments.
    {Reader::DfuReader, "DfuReader", "DFU channel reader (download)", 7},
    // The fourth request of the RMA workload: in its first partition's writes.
    {Reader::RmaReader, "RmaReader", "RMA channel reader", 4},
    // The answers to the push's start packet and, the sample set's
    // seventeenth, to its finish packet.
    {Reader::MiscAnswer, "MiscStartAnswer", "misc-data answer read (push start)", 1},
    {Reader::MiscAnswer, "MiscFinishAnswer", "misc-data answer read (push finish)", 17},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

constexpr ReadFault kFaults[] = {ReadFault::CutShort, ReadFault::EndOfStream, ReadFault::ReadError, ReadFault::Silence};

// Silence on a reader channel is the channel's ordinary idle state (the
// co-processor has nothing to ask): the daemon's right reaction is to wait
// quietly, so no reaction is looked for there.
bool quiet_cell(Reader reader, ReadFault fault) {
  return fault == ReadFault::Silence && (reader == Reader::DfuReader || reader == Reader::RmaReader);
}

struct Figures {
  double reaction_s = -1;  // -1: no reaction within the bound
  double cpu_percent = 0;
  double log_bytes_per_s = 0;
  bool wakelock_released = false;
  bool recovered = false;
};

size_t file_size(const std::string& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<size_t>(size);
}

// utime + stime of a process, in seconds.
double cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t after_name = stat.rfind(')');
  if (after_name == std::string::npos) return 0;
  std::istringstream fields(stat.substr(after_name + 2));
  std::string field;
  unsigned long long utime = 0;
  unsigned long long stime = 0;
  // Fields from the state (3rd) on: utime is the 14th, stime the 15th.
  for (int index = 3; index <= 15 && fields >> field; ++index) {
    if (index == 14) utime = std::stoull(field);
    if (index == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// One cell: a device and a daemon, a fault, the measurements.
class FaultCell {
 public:
  FaultCell(const Row& row, ReadFault fault) : row_(row), fault_(fault) {}
  ~FaultCell() {
    daemon_.reset();
    device_.reset();
    if (!kept_) {
      std::error_code ignored;
      std::filesystem::remove_all(root_, ignored);
    }
  }

  // Runs the cell; problems are returned as text, figures kept. A failed
  // cell keeps its device root for inspection.
  std::vector<std::string> run() {
    root_ = sim::make_temp_root("marlo-fault-matrix");
    steps();
    kept_ = !problems_.empty();
    if (kept_) problems_.push_back("device root kept: " + root_);
    return problems_;
  }

  const Figures& figures() const { return figures_; }

 private:
  void steps() {
    shipped_ = sim::VirtualDevice::build_sample_root(root_);
    log_file_ = root_ + "/sim/marlod.log";
    device_ = std::make_unique<sim::VirtualDevice>(root_, options());
    if (row_.reader != Reader::ControlAnswer) arm();
    if (!start_daemon()) return;
    if (row_.reader == Reader::ControlAnswer) {
      if (!wait(noflash_in_service(0, 0), 30s, "the co-processor came into service")) return;
      arm();
      sim::set_property(root_, "vendor.marlo_reset", "1");
    }
    if (!wait([&] { return struck_.load(); }, 60s, "the fault struck")) return;
    measure();
    recover();
  }

  sim::DeviceOptions options() const {
    sim::DeviceOptions options;
    if (row_.reader == Reader::DfuReader) {
      options.restart_offline_ms = kLongRestartMs;
      return options;  // older firmware in flash: a download
    }
    options.variant = sim::Variant::NoflashPsram;
    options.flash = sim::FlashContents::Empty;
    options.running_at_start = true;
    return options;
  }

  sim::ChannelServer& channel() {
    switch (row_.reader) {
      case Reader::ControlAnswer: return device_->driver();
      case Reader::DfuReader: return device_->dfu();
      case Reader::RmaReader: return device_->rma();
      case Reader::MiscAnswer: return device_->misc();
    }
    return device_->driver();
  }

  void arm() {
    channel().arm_read_fault(fault_, row_.packet, [this] {
      struck_log_size_ = file_size(log_file_);
      struck_at_ns_ = Clock::now().time_since_epoch().count();
      struck_ = true;
    });
  }

  bool start_daemon() {
    const char* build = std::getenv("MARLO_BUILD_DIR");
    const std::string marlod = std::string(build ? build : ".") + "/marlod";
    daemon_ = std::make_unique<sim::DaemonProcess>(
        sim::DaemonSettings{marlod, root_, log_file_, root_ + "/sim/marlod.stderr", kTimeScale});
    std::string error;
    if (daemon_->start(&error)) return true;
    problems_.push_back("marlod did not start: " + error);
    return false;
  }

  template <typename Condition>
  bool wait(Condition condition, std::chrono::milliseconds limit, const std::string& what) {
    if (test::wait_until(condition, limit)) return true;
    problems_.push_back("not within " + std::to_string(limit.count()) + " ms: " + what);
    return false;
  }

  std::function<bool()> noflash_in_service(int misc_finishes, int rma_runs) {
    return [this, misc_finishes, rma_runs] {
      return device_->misc().status().finishes > misc_finishes && device_->rma().status().runs_completed > rma_runs;
    };
  }

  bool wakelock_balanced() const {
    const size_t taken = test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_lock"));
    return test::wakelock_records(sim::read_text(root_ + "/sys/power/wake_unlock")) == taken;
  }

  // The daemon's reaction, seen in its log after the fault: the failed reset
  // for the control device, an error entry elsewhere.
  bool reacted() const {
    std::ifstream in(log_file_);
    in.seekg(static_cast<std::streamoff>(struck_log_size_.load()));
    const std::string marker = row_.reader == Reader::ControlAnswer ? "Marlo reset failed" : "\"prio\": 6,";
    std::string line;
    while (std::getline(in, line)) {
      if (line.find(marker) != std::string::npos) return true;
    }
    return false;
  }

  void measure() {
    const Clock::time_point struck{Clock::duration(struck_at_ns_.load())};
    if (quiet_cell(row_.reader, fault_)) {
      figures_.reaction_s = 0;
    } else if (test::wait_until([&] { return reacted() && wakelock_balanced(); }, kReactionBound)) {
      figures_.reaction_s = std::chrono::duration<double>(Clock::now() - struck).count();
    } else {
      problems_.push_back("no reaction (an error logged and every wakelock reference back) within the bound");
    }
    if (row_.reader == Reader::MiscAnswer) {
      // The daemon serves RMA once the push has ended, failed or not: that
      // workload is service, not waiting, and is left out of the window.
      test::wait_until([&] { return device_->rma().status().runs_completed > 0; }, 15s);
    }
    const pid_t pid = daemon_->pid();
    const double cpu_before = cpu_seconds(pid);
    const size_t log_before = file_size(log_file_);
    const Clock::time_point from = Clock::now();
    std::this_thread::sleep_for(kWindow);
    const double seconds = std::chrono::duration<double>(Clock::now() - from).count();
    figures_.cpu_percent = 100.0 * (cpu_seconds(pid) - cpu_before) / seconds;
    figures_.log_bytes_per_s = static_cast<double>(file_size(log_file_) - log_before) / seconds;
    figures_.wakelock_released = wakelock_balanced();
    if (figures_.cpu_percent >= kMaxCpuPercent) problems_.push_back("CPU while waiting above 5% of a core");
    if (figures_.log_bytes_per_s >= kMaxLogBytesPerSecond) problems_.push_back("log grows by 64 KiB/s or more");
    if (!figures_.wakelock_released) problems_.push_back("a wakelock reference is held while waiting");
    if (!daemon_->alive()) problems_.push_back("marlod ended");
  }

  // The next power-up: a restart of the co-processor brings it back into
  // service.
  void recover() {
    const int misc_finishes = device_->misc().status().finishes;
    const int rma_runs = device_->rma().status().runs_completed;
    device_->restart();
    if (row_.reader == Reader::DfuReader) {
      figures_.recovered = wait([&] { return download_finished(); }, 60s, "the download completed after the power-up");
      if (figures_.recovered) {
        std::vector<std::string> flash =
            sim::verify_flash(device_->flash(), shipped_, sim::expected_platform_block(sim::RootOptions{}));
        if (!flash.empty()) problems_.push_back("flash after the download: " + flash.front());
        figures_.recovered = flash.empty();
      }
    } else {
      figures_.recovered = wait(noflash_in_service(misc_finishes, rma_runs), 60s,
                                "the misc push and the RMA workload completed after the power-up");
    }
  }

  // A download committed, the co-processor switched back to FLASH mode and
  // boot status 1 reported after that.
  bool download_finished() const {
    if (device_->dfu().status().sessions_completed < 1) return false;
    const std::vector<sim::ControlRequest> requests = device_->driver().requests();
    bool to_flash = false;
    for (const sim::ControlRequest& r : requests) {
      if (r.name() == "SET_BOOT_MODE" && r.value == sim::kBootModeFlash) to_flash = true;
      if (to_flash && r.name() == "BOOT_STATUS" && r.value == 1) return true;
    }
    return false;
  }

  const Row& row_;
  const ReadFault fault_;
  std::string root_;
  std::string log_file_;
  sim::FirmwareSet shipped_;
  std::unique_ptr<sim::VirtualDevice> device_;
  std::unique_ptr<sim::DaemonProcess> daemon_;
  std::atomic<bool> struck_{false};
  std::atomic<size_t> struck_log_size_{0};
  std::atomic<Clock::rep> struck_at_ns_{0};
  Figures figures_;
  std::vector<std::string> problems_;
  bool kept_ = false;
};

std::string cell_line(const Row& row, ReadFault fault, const Figures& f) {
  char reaction[32];
  if (quiet_cell(row.reader, fault)) {
    std::snprintf(reaction, sizeof(reaction), "waits");
  } else if (f.reaction_s < 0) {
    std::snprintf(reaction, sizeof(reaction), "none in %lld s", static_cast<long long>(kReactionBound.count()));
  } else {
    std::snprintf(reaction, sizeof(reaction), "%.2f s", f.reaction_s);
  }
  char line[256];
  std::snprintf(line, sizeof(line), "| %s | %s | %s | %.1f %% | %.0f B/s | %s | %s |", row.name,
                sim::read_fault_name(fault), reaction, f.cpu_percent, f.log_bytes_per_s,
                f.wakelock_released ? "0" : "held", f.recovered ? "yes" : "no");
  return line;
}

class ReadFaultMatrix : public ::testing::TestWithParam<Row> {};

TEST_P(ReadFaultMatrix, EveryFaultIsBoundedQuietAndRecoveredAtThePowerUp) {
  const Row& row = GetParam();
  std::vector<std::unique_ptr<FaultCell>> cells;
  std::vector<std::vector<std::string>> problems(std::size(kFaults));
  std::vector<std::thread> threads;
  for (ReadFault fault : kFaults) cells.push_back(std::make_unique<FaultCell>(row, fault));
  for (size_t i = 0; i < cells.size(); ++i) {
    threads.emplace_back([&cell = *cells[i], &found = problems[i]] { found = cell.run(); });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < std::size(kFaults); ++i) {
    std::printf("%s\n", cell_line(row, kFaults[i], cells[i]->figures()).c_str());
    for (const std::string& problem : problems[i]) {
      ADD_FAILURE() << row.name << " / " << sim::read_fault_name(kFaults[i]) << ": " << problem;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Readers, ReadFaultMatrix, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.id); });

}  // namespace
}  // namespace marlo::e2e
