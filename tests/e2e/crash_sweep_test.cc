// Crash sweeps. A download runs once to count the packets the co-processor
// receives; then, for each packet N, it runs again, the daemon is killed
// right as the co-processor receives packet N and the device power cycled
// before a new daemon starts, which must bring the shipped firmware into
// flash. (Restarts at any moment are the generated co-processor's; a
// flash-less session's disk, the backing-file sweep's.) The backing-file
// sweep rebuilds, from a recorded RMA session, every disk state a power loss
// could leave, and serves each with a fresh daemon.
//
// MARLO_SWEEP=all sweeps every point (scripts/sweep.sh); otherwise the first,
// the last and a fixed handful of points run, as part of the normal suite.
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "crash_states.h"
#include "e2e_fixture.h"
#include "sim/device_root.h"
#include "support/wait_until.h"

namespace marlo::e2e {
namespace {

namespace fs = std::filesystem;

std::string sweep_mode() {
  const char* mode = std::getenv("MARLO_SWEEP");
  return mode != nullptr ? mode : "";
}

// Every point of 1..total (MARLO_SWEEP=all), the points MARLO_SWEEP lists
// (say "2,17", to replay a run), or the first, the last and a fixed handful.
std::vector<int> cut_points(int total) {
  std::set<int> points{1, 2, total / 3, total / 2, total - 1, total};
  if (sweep_mode() == "all") {
    for (int n = 1; n <= total; ++n) points.insert(n);
  } else if (!sweep_mode().empty()) {
    points.clear();
    std::stringstream in(sweep_mode());
    for (std::string item; std::getline(in, item, ',');) points.insert(std::atoi(item.c_str()));
  }
  points.erase(0);
  return {points.begin(), points.end()};
}

// A download swept: the older firmware in flash and the update property set.
class DownloadSweep : public E2e {
 protected:
  void prepare() {
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::DeviceOptions options;
    options.dfu.fragment_size = 8192;  // a modest packet count for the sample set
    start_device(options);
  }

  // What is still wrong, empty once the shipped firmware is byte for byte in
  // flash and running from it, and the update property is set.
  std::string converged() {
    if (std::string flash = flash_problem(); !flash.empty()) return flash;
    std::optional<sim::FirmwareManifest> running = device_->coprocessor().running_firmware();
    if (!running || running->apps != shipped_.versions.apps) return "the shipped firmware does not run";
    if (device_->coprocessor().boot_mode() != sim::kBootModeFlash) return "not booted from flash";
    const std::string update = property("persist.vendor.zt_aon.dfu_update");
    return update == "1" ? "" : "persist.vendor.zt_aon.dfu_update is " + update;
  }

  // Arms the kill at packet `n` of a device already started, then starts
  // the daemon. The kill lands before the co-processor handles the packet:
  // the daemon is dead (not yet reaped) when the handling begins.
  void start_daemon_killed_at(int n) {
    victim_ = 0;
    cut_done_ = false;
    device_->at_packet(n, [this] {
      pid_t pid;
      while ((pid = victim_.load()) == 0) std::this_thread::yield();
      ::kill(pid, SIGKILL);
      siginfo_t info;
      ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
      cut_done_ = true;
      return false;
    });
    start_daemon();
    victim_ = daemon_->pid();
  }

  // Runs the session once to count its packets, then once per cut point
  // with the kill, a power cycle and a new daemon that must converge.
  void run() {
    prepare();
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return update_finished(); })) << "the session to count did not finish";
    const int packets = device_->packets_received();
    int runs = 0, not_reached = 0;
    bool failed = false;
    for (int n : cut_points(packets)) {
      renew_root(failed);
      prepare();
      start_daemon_killed_at(n);
      // A session may take fewer packets than the one counted (an answer
      // late under load is asked for again, and the count includes that).
      std::string why;
      test::wait_until([&] { return cut_done_.load() || converged().empty(); }, std::chrono::seconds(20));
      failed = false;
      if (!cut_done_) {
        ++not_reached;
        device_->at_packet(0, nullptr);
        continue;
      }
      ++runs;
      stop_daemon();
      device_->power_cycle();
      start_daemon();
      failed = !test::wait_until(
          [&] {
            why = converged();
            return why.empty();
          },
          std::chrono::seconds(20));
      EXPECT_FALSE(failed) << "cut at packet " << n << " of " << packets << ": " << why;
    }
    std::printf("[ sweep    ] %d packets, %d runs, %d cut points past the session's end\n", packets, runs, not_reached);
    EXPECT_GT(runs, 0);
    EXPECT_LE(not_reached, 2);
  }

  std::atomic<pid_t> victim_{0};
  std::atomic<bool> cut_done_{false};
};

// The erase requests open the download, one at a time. A hang-up that takes
// an erase request with it (or a restart as it arrives) leaves that
// partition, and the ones not yet asked for, to be erased when the download
// is taken up again: the update must not complete over stale partitions.
TEST_F(DownloadSweep, EraseLostWithAHangUpIsAskedForAgain) {
  for (int lost : {1, 2}) {
    SCOPED_TRACE("erase request " + std::to_string(lost) + " lost");
    renew_root();
    prepare();
    device_->at_packet(lost, [this] {
      device_->dfu().hang_up_all();
      return true;
    });
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return update_finished(); }));
    EXPECT_EQ(converged(), "");
    EXPECT_EQ(device_->dfu().status().erases.size(), 2u);
  }
}

TEST_F(DownloadSweep, DaemonKilledAtEachPacketConvergesAfterPowerCycle) { run(); }

// ---- the backing files across a power loss ------------------------------

class BackingFileSweep : public E2e {
 protected:
  // One RMA session with its file operations recorded: the co-processor's
  // workload runs twice (a restart in between), so the second run
  // overwrites every block the first one wrote.
  std::vector<FileOp> record_session() {
    const std::string journal = root_ + "/sim/files.journal";
    ::setenv("MARLO_FILE_JOURNAL", journal.c_str(), 1);
    sim::DeviceOptions options = noflash_options();
    options.restart_offline_ms = 20;
    start_device(options);
    start_daemon();
    ::unsetenv("MARLO_FILE_JOURNAL");
    EXPECT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
    device_->restart();
    EXPECT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 2; }));
    EXPECT_TRUE(device_->rma().status().problems.empty());
    stop_daemon();
    // DATA_WRITE_RESP (513) with result 0: header (CRC, length, command),
    // then request word, client value, memory id, block size, result.
    auto write_done = [](const std::string& node, const sim::Bytes& packet) {
      return node == "/dev/glink_pkt_marlo_rma" && packet.size() == 32 && sim::get_u32(packet, 8) == 513 &&
             sim::get_u32(packet, 28) == 0;
    };
    return read_journal(journal, "/data/vendor/aon/", write_done);
  }

  // The partition a backing file name belongs to, or -1.
  static int partition_of(const std::string& name) {
    const std::vector<sim::RmaPartition> partitions = sim::RmaConfig{}.partitions;
    for (size_t i = 0; i < partitions.size(); ++i) {
      if (sim::RmaClient::backing_file(partitions[i]) == "/data/vendor/aon/" + name) return static_cast<int>(i);
    }
    return -1;
  }

  // Puts `state` on a fresh device and serves it with a fresh daemon whose
  // co-processor reads every block back; what is wrong with it.
  std::vector<std::string> check(const CrashState& state) {
    renew_root();
    std::vector<std::string> problems;
    const std::vector<sim::RmaPartition> partitions = sim::RmaConfig{}.partitions;
    for (const auto& [name, data] : state.files) {
      sim::write_text(root_ + "/data/vendor/aon/" + name, std::string(data.begin(), data.end()));
      const int p = partition_of(name);
      if (p >= 0 && data.size() != partitions[static_cast<size_t>(p)].size) {
        problems.push_back("backing file " + name + " half-made: " + std::to_string(data.size()) + " bytes");
      }
    }
    sim::DeviceOptions options = noflash_options();
    options.rma.read_only = true;
    start_device(options);
    start_daemon();
    if (!wait_for([&] {
          sim::RmaStatus rma = device_->rma().status();
          return rma.runs_completed >= 1 || !rma.problems.empty();
        })) {
      problems.push_back("the read-back run did not complete");
      return problems;
    }
    const sim::RmaStatus rma = device_->rma().status();
    for (const std::string& problem : rma.problems) problems.push_back(problem);
    for (const DurableBlock& block : state.durable) {
      const int p = partition_of(block.name);
      sim::Bytes read;
      for (const auto& [where, bytes] : rma.reads) {
        if (where.first == static_cast<size_t>(p)) read.insert(read.end(), bytes.begin(), bytes.end());
      }
      if (read.size() < block.offset + block.data.size() ||
          !std::equal(block.data.begin(), block.data.end(), read.begin() + static_cast<long>(block.offset))) {
        problems.push_back("block of " + std::to_string(block.data.size()) + " bytes at " +
                           std::to_string(block.offset) + " of " + block.name + " made durable, read back different");
      }
    }
    for (const auto& entry : fs::directory_iterator(root_ + "/data/vendor/aon/")) {
      if (entry.path().extension() == ".tmp") problems.push_back("temporary left: " + entry.path().string());
    }
    return problems;
  }
};

// Sector-sized blocks: the unit a disk writes whole.
constexpr size_t kTearBlock = 512;

TEST_F(BackingFileSweep, EveryPowerLossStateKeepsDurableBlocksAndNoHalfMadeFile) {
  const std::vector<FileOp> ops = record_session();
  ASSERT_GT(ops.size(), 20u) << "the journal holds too few operations";
  size_t generated = 0;
  std::vector<CrashState> states = crash_states(ops, kTearBlock, &generated);
  std::set<size_t> picked{0, states.size() - 1};  // with a handful between, unless every state is swept
  for (size_t k = 1; k < 6; ++k) picked.insert(k * states.size() / 6);
  for (size_t i = 0; sweep_mode() == "all" && i < states.size(); ++i) picked.insert(i);
  for (size_t i : picked) {
    for (const std::string& problem : check(states[i])) {
      ADD_FAILURE() << "cut after " << states[i].cut << " of " << ops.size() << " operations (" << states[i].how
                    << "): " << problem;
    }
  }
  std::printf("[ sweep    ] %zu file operations, %zu crash states (%zu distinct), %zu checked\n", ops.size(), generated,
              states.size(), picked.size());
}

}  // namespace
}  // namespace marlo::e2e
