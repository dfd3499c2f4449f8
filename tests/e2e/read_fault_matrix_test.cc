// The read-fault matrix: every place where the daemon reads from the
// co-processor, against every way that read can break down. For each cell
// the daemon must react within a bound, wait afterwards on less than 5% of a
// core and less than 64 KiB of log a second, give back every wakelock
// reference, and bring the co-processor back into service at its next
// power-up. Each row is one test; its four cells run side by side, each with
// a device and a daemon of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_fixture.h"
#include "sim/read_fault.h"
#include "support/wait_until.h"

namespace marlo::e2e {
namespace {

using namespace std::chrono_literals;
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
constexpr double kMaxCoreShare = 0.05;
constexpr double kMaxLogBytesPerSecond = 64 * 1024;

constexpr ReadFault kFaults[] = {ReadFault::CutShort, ReadFault::EndOfStream, ReadFault::ReadError, ReadFault::Silence};

enum class Reader { ControlAnswer, DfuReader, RmaReader, MiscAnswer };

struct Row {
  Reader reader;
  const char* id;  // the test's name
  // The packet of the co-processor (sent, or for a read error received)
  // that the fault breaks, counted from the arming.
  int packet;
  // Silence on a reader channel is its ordinary idle state (the co-processor
  // has nothing to ask): the right reaction is to wait quietly.
  bool silence_is_idle;
};

constexpr Row kRows[] = {
    // Armed once the co-processor is in service; the reset property makes
    // the daemon issue the request whose answer breaks.
    {Reader::ControlAnswer, "ControlAnswer", 1, false},
    // The seventh packet the co-processor sends is in the first image's
    // fragment requests.
    {Reader::DfuReader, "DfuReader", 7, true},
    // The fourth request of the RMA workload: in its first partition's writes.
    {Reader::RmaReader, "RmaReader", 4, true},
    // The answers to the push's start packet and, the sample set's
    // seventeenth, to its finish packet.
    {Reader::MiscAnswer, "MiscStartAnswer", 1, false},
    {Reader::MiscAnswer, "MiscFinishAnswer", 17, false},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.id; }

// One cell: a device and a daemon, a fault, the measurements.
class FaultCell : public DaemonRig {
 public:
  FaultCell(const Row& row, ReadFault fault) : DaemonRig(kTimeScale), fault_(fault), row_(row) {}

  const ReadFault fault_;
  std::vector<std::string> problems_;  // what went wrong, as text

  // Runs the cell; a failed cell keeps its root (see the test).
  void run() {
    sim::DeviceOptions options = noflash_options();
    if (row_.reader == Reader::DfuReader) {
      options = {};  // older firmware in flash: a download
      options.restart_offline_ms = kLongRestartMs;
    }
    start_device(options);
    if (row_.reader != Reader::ControlAnswer) arm();
    if (!check(launch_daemon() == "", "marlod started")) return;
    if (row_.reader == Reader::ControlAnswer) {
      if (!wait(in_service(0, 0), 30s, "the co-processor came into service")) return;
      arm();
      set_property("vendor.marlo_reset", "1");
    }
    if (!wait([&] { return struck_.load(); }, 60s, "the fault struck")) return;
    // The daemon's reaction, seen in its log after the fault (the failed
    // reset for the control device, an error entry elsewhere) with every
    // wakelock reference back.
    if (fault_ != ReadFault::Silence || !row_.silence_is_idle) {
      const std::string marker = row_.reader == Reader::ControlAnswer ? "Marlo reset failed" : "\"prio\": 6,";
      wait(
          [&] {
            std::ifstream in(log_file_);
            in.seekg(struck_log_size_.load());
            std::string entry;
            while (std::getline(in, entry)) {
              if (entry.find(marker) != std::string::npos) return wakelock_takes() == wakelock_releases();
            }
            return false;
          },
          kReactionBound, "a reaction (an error logged and every wakelock reference back)");
    }
    if (row_.reader == Reader::MiscAnswer) {
      // The daemon serves RMA once the push has ended, failed or not: that
      // workload is service, not waiting, and is left out of the window.
      test::wait_until([&] { return device_->rma().status().runs_completed > 0; }, 15s);
    }
    const Activity quiet = activity_over(kWindow);
    check(quiet.core_share < kMaxCoreShare,
          "CPU while waiting under 5% of a core: " + std::to_string(quiet.core_share));
    check(quiet.log_bytes_per_second < kMaxLogBytesPerSecond,
          "log growing under 64 KiB/s: " + std::to_string(quiet.log_bytes_per_second));
    check(wakelock_takes() == wakelock_releases(), "every wakelock reference back while waiting");
    check(daemon_->alive(), "marlod running");
    recover();
  }

 private:
  void arm() {
    sim::ChannelServer* channels[] = {&device_->driver(), &device_->dfu(), &device_->rma(), &device_->misc()};
    // The log of the daemon the fault strikes (the running one, else the
    // next one started), named here: the strike comes on the device's thread.
    const std::string log = root_ + "/sim/marlod-" + std::to_string(daemon_ ? starts_ : starts_ + 1) + ".log";
    channels[static_cast<int>(row_.reader)]->arm_read_fault(fault_, row_.packet, [this, log] {
      std::error_code unreadable;
      struck_log_size_ = static_cast<long>(std::filesystem::file_size(log, unreadable));
      struck_ = true;
    });
  }

  bool check(bool holds, const std::string& what) {
    if (!holds) problems_.push_back("not so: " + what);
    return holds;
  }

  template <typename Condition>
  bool wait(Condition condition, std::chrono::milliseconds limit, const std::string& what) {
    return check(test::wait_until(condition, limit), what + " within " + std::to_string(limit.count()) + " ms");
  }

  std::function<bool()> in_service(int misc_finishes, int rma_runs) {
    return [this, misc_finishes, rma_runs] {
      return device_->misc().status().finishes > misc_finishes && device_->rma().status().runs_completed > rma_runs;
    };
  }

  // The next power-up (a restart of the co-processor) brings it back into
  // service: the download completed with an exact flash, or the push and
  // the RMA workload completed again.
  bool recover() {
    const auto back = in_service(device_->misc().status().finishes, device_->rma().status().runs_completed);
    device_->restart();
    if (row_.reader != Reader::DfuReader) return wait(back, 60s, "push and RMA workload after the power-up");
    return wait([&] { return update_finished(); }, 60s, "the download after the power-up") &&
           check(flash_problem().empty(), "an exact flash after the download: " + flash_problem());
  }

  const Row& row_;
  std::atomic<bool> struck_{false};
  std::atomic<long> struck_log_size_{0};
};

class ReadFaultMatrix : public ::testing::TestWithParam<Row> {};

TEST_P(ReadFaultMatrix, EveryFaultIsBoundedQuietAndRecoveredAtThePowerUp) {
  const Row& row = GetParam();
  std::vector<std::unique_ptr<FaultCell>> cells;
  std::vector<std::thread> threads;
  for (ReadFault fault : kFaults) {
    cells.push_back(std::make_unique<FaultCell>(row, fault));
    threads.emplace_back([&cell = *cells.back()] {
      cell.run();
      cell.keep_root_ = !cell.problems_.empty();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& cell : cells) {
    for (const std::string& problem : cell->problems_) {
      ADD_FAILURE() << row.id << " / " << sim::read_fault_name(cell->fault_) << ": " << problem << " (root "
                    << cell->root_ << ")";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Readers, ReadFaultMatrix, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.id); });

}  // namespace
}  // namespace marlo::e2e
