// Crash sweeps. A session runs once to count the packets the co-processor
// receives; then, for each packet N, it runs again and is cut right as the
// co-processor receives packet N: (a) the daemon is killed and the device
// power cycled before a new daemon starts, (b) the co-processor restarts
// (hang-up, power-down, power-up). Every run must converge to the shipped
// firmware in flash, or to complete misc data and RMA blocks that read back.
// A third sweep rebuilds, from a recorded RMA session, every disk state a
// power loss could leave, and serves each with a fresh daemon.
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

bool full_sweep() { return sweep_mode() == "all"; }

// Every point of 1..total (MARLO_SWEEP=all), the points MARLO_SWEEP lists
// (say "2,17", to replay a run), or the first, the last and a fixed handful.
std::vector<int> cut_points(int total) {
  if (!full_sweep() && !sweep_mode().empty()) {
    std::vector<int> listed;
    std::stringstream in(sweep_mode());
    std::string item;
    while (std::getline(in, item, ',')) listed.push_back(std::atoi(item.c_str()));
    return listed;
  }
  if (full_sweep()) {
    std::vector<int> all;
    for (int n = 1; n <= total; ++n) all.push_back(n);
    return all;
  }
  std::set<int> some{1, 2, total / 3, total / 2, total - 1, total};
  some.erase(0);
  return {some.begin(), some.end()};
}

enum class Cut { KillDaemon, RestartCoprocessor };

// A session swept: how the device is made, when the session to count is
// over, and what is still wrong with its end state (empty once converged).
class CrashSweep : public E2e {
 protected:
  virtual void prepare() = 0;
  virtual bool finished() = 0;
  virtual std::string converged() = 0;
  // What the device does at power-up before the daemon starts.
  virtual void after_power_cycle() {}

  // Arms the cut at packet `n` of a device already started, then starts the
  // daemon. A kill lands before the co-processor handles the packet: the
  // daemon is dead (not yet reaped) when the handling begins.
  void start_daemon_cut_at(int n, Cut cut) {
    victim_ = 0;
    cut_done_ = false;
    device_->at_packet(n, [this, cut] {
      if (cut == Cut::RestartCoprocessor) {
        cut_done_ = true;
        return device_->restart_on_packet();
      }
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

  void power_cycle_and_restart_daemon() {
    stop_daemon();
    device_->power_cycle();
    after_power_cycle();
    start_daemon();
  }

  // Waits up to `ms` for convergence; `why` gets what is still wrong.
  bool converges_within(int ms, std::string* why) {
    return test::wait_until(
        [&] {
          *why = converged();
          return why->empty();
        },
        std::chrono::milliseconds(ms));
  }

  // Runs the session once to count its packets, then once per cut point
  // with the cut. A killed daemon is followed by a power cycle and a new
  // daemon. After a co-processor restart the running daemon gets
  // `in_place_ms` to converge; when it does not, the device is power cycled
  // and the next daemon must (`reboot_allowed`), else the run failed.
  void run(Cut cut, bool reboot_allowed, int in_place_ms) {
    prepare();
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return finished(); })) << "the session to count did not finish";
    const int packets = device_->packets_received();
    int runs = 0, after_reboot = 0, not_reached = 0, failures = 0;
    bool failed = false;
    for (int n : cut_points(packets)) {
      renew_root(failed);
      prepare();
      start_daemon_cut_at(n, cut);
      // A session may take fewer packets than the one counted (an answer
      // late under load is asked for again, and the count includes that).
      std::string why;
      test::wait_until([&] { return cut_done_.load() || converged().empty(); }, std::chrono::seconds(20));
      if (!cut_done_) {
        ++not_reached;
        failed = false;
        device_->at_packet(0, nullptr);
        continue;
      }
      ++runs;
      if (cut == Cut::KillDaemon) power_cycle_and_restart_daemon();
      failed = !converges_within(cut == Cut::KillDaemon ? 20000 : in_place_ms, &why);
      if (failed && cut == Cut::RestartCoprocessor && reboot_allowed) {
        const std::string in_place = why;
        power_cycle_and_restart_daemon();
        failed = !converges_within(20000, &why);
        why += " (before the power cycle: " + in_place + ")";
        after_reboot += failed ? 0 : 1;
      }
      if (failed) {
        ++failures;
        ADD_FAILURE() << "cut at packet " << n << " of " << packets << ": " << why;
      }
    }
    std::printf(
        "[ sweep    ] %d packets, %d runs: %d converged after a power cycle, %d failed, %d cut points past "
        "the session's end\n",
        packets, runs, after_reboot, failures, not_reached);
    EXPECT_GT(runs, 0);
    EXPECT_LE(not_reached, 2);
  }

  std::atomic<pid_t> victim_{0};
  std::atomic<bool> cut_done_{false};
};

// ---- the download -------------------------------------------------------

class DownloadSweep : public CrashSweep {
 protected:
  void prepare() override {
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::DeviceOptions options;
    options.dfu.fragment_size = 8192;  // a modest packet count for the sample set
    options.restart_offline_ms = 20;
    start_device(options);
  }

  bool finished() override { return update_finished(); }

  // The shipped firmware byte for byte in flash and running from it, and
  // the update property set.
  std::string converged() override {
    if (std::string flash = flash_problem(); !flash.empty()) return flash;
    std::optional<sim::FirmwareManifest> running = device_->coprocessor().running_firmware();
    if (!running || running->apps != shipped_.versions.apps) return "the shipped firmware does not run";
    if (device_->coprocessor().boot_mode() != sim::kBootModeFlash) return "not booted from flash";
    const std::string update = property("persist.vendor.zt_aon.dfu_update");
    return update == "1" ? "" : "persist.vendor.zt_aon.dfu_update is " + update;
  }
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

TEST_F(DownloadSweep, DaemonKilledAtEachPacketConvergesAfterPowerCycle) { run(Cut::KillDaemon, false, 0); }

// A restart during a download of the flash variant may be left to the next
// boot: the download must then complete there.
TEST_F(DownloadSweep, CoprocessorRestartedAtEachPacketConverges) { run(Cut::RestartCoprocessor, true, 1000); }

// ---- the flash-less session ---------------------------------------------

class NoflashSweep : public CrashSweep {
 protected:
  void prepare() override {
    sim::DeviceOptions options = noflash_options();
    options.restart_offline_ms = 20;
    options.misc_max_payload = 4096;      // a modest packet count
    options.rma.answer_timeout_ms = 500;  // a lost request is asked again soon
    start_device(options);
  }

  bool finished() override { return device_->rma().status().runs_completed >= 1; }

  // The kernel loads a co-processor without flash in HOST mode as the
  // device starts, as when the device was created.
  void after_power_cycle() override {
    device_->coprocessor().set_boot_mode(sim::kBootModeHost);
    device_->coprocessor().load();
  }

  // The misc data complete as shipped, and a whole RMA run since the cut:
  // every block written, answered 0 and read back as written.
  std::string converged() override {
    const sim::MiscStatus misc = device_->misc().status();
    if (misc.stored.size() != 2 || !misc.problems.empty()) return "misc data incomplete";
    const std::string bt = sim::read_text(root_ + sim::kBtFirmwarePath);
    const std::string nv = sim::read_text(root_ + sim::kBtNvPath);
    if (std::string(misc.stored.at(0).begin(), misc.stored.at(0).end()) != bt ||
        std::string(misc.stored.at(1).begin(), misc.stored.at(1).end()) != nv) {
      return "misc data differ from the shipped files";
    }
    const sim::RmaStatus rma = device_->rma().status();
    if (!rma.problems.empty()) return "RMA: " + rma.problems.front();
    if (rma.runs_completed < 1) return "no RMA run completed";
    return device_->rma().verify_backing_files();
  }
};

TEST_F(NoflashSweep, DaemonKilledAtEachPacketConvergesAfterPowerCycle) { run(Cut::KillDaemon, false, 0); }

TEST_F(NoflashSweep, CoprocessorRestartedAtEachPacketConverges) { run(Cut::RestartCoprocessor, false, 20000); }

// ---- the backing files across a power loss ------------------------------

class BackingFileSweep : public E2e {
 protected:
  static sim::DeviceOptions noflash(bool read_only) {
    sim::DeviceOptions options = noflash_options();
    options.restart_offline_ms = 20;
    options.rma.read_only = read_only;
    return options;
  }

  // One RMA session with its file operations recorded: the co-processor's
  // workload runs twice (a restart in between), so the second run
  // overwrites every block the first one wrote.
  std::vector<FileOp> record_session() {
    const std::string journal = root_ + "/sim/files.journal";
    ::setenv("MARLO_FILE_JOURNAL", journal.c_str(), 1);
    start_device(noflash(false));
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
    start_device(noflash(true));
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
  std::vector<size_t> picked;
  for (size_t i = 0; i < states.size(); ++i) picked.push_back(i);
  if (!full_sweep()) {
    // The first, the last and a fixed handful between.
    std::set<size_t> some{0, states.size() - 1};
    for (size_t k = 1; k < 6; ++k) some.insert(k * states.size() / 6);
    picked.assign(some.begin(), some.end());
  }
  int violations = 0;
  for (size_t i : picked) {
    const CrashState& state = states[i];
    const std::vector<std::string> problems = check(state);
    for (const std::string& problem : problems) {
      ADD_FAILURE() << "cut after " << state.cut << " of " << ops.size() << " operations (" << state.how
                    << "): " << problem;
    }
    violations += problems.empty() ? 0 : 1;
  }
  std::printf("[ sweep    ] %zu file operations, %zu crash states (%zu distinct), %zu checked, %d violations\n",
              ops.size(), generated, states.size(), picked.size(), violations);
}

}  // namespace
}  // namespace marlo::e2e
