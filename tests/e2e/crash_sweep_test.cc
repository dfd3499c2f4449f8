// Crash sweeps: from a recorded RMA session, every disk state a power loss
// could leave is rebuilt and served with a fresh daemon. A daemon killed or
// a co-processor restarted at any moment is the generated co-processor's
// (its relaunch and restart steps); a lost erase request, the case below.
//
// MARLO_SWEEP=all checks every state (scripts/sweep.sh); otherwise the first,
// the last and a fixed handful run, as part of the normal suite.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "crash_states.h"
#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

namespace fs = std::filesystem;

// The erase requests open the download, one at a time. A hang-up that takes
// an erase request with it (or a restart as it arrives) leaves that
// partition, and the ones not yet asked for, to be erased when the download
// is taken up again: the update must not complete over stale partitions.
TEST_F(E2e, EraseLostWithAHangUpIsAskedForAgain) {
  for (int lost : {1, 2}) {
    SCOPED_TRACE("erase request " + std::to_string(lost) + " lost");
    renew_root();
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    start_device({});
    device_->at_packet(lost, [this] {
      device_->dfu().hang_up_all();
      return true;
    });
    start_daemon();
    ASSERT_TRUE(wait_for([&] { return update_finished(); }));
    expect_flash_holds_shipped_firmware();
    EXPECT_EQ(property("persist.vendor.zt_aon.dfu_update"), "1");
    EXPECT_EQ(device_->dfu().status().erases.size(), 2u);
  }
}

// ---- the backing files across a power loss ------------------------------

class BackingFileSweep : public E2e {
 protected:
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
  // One RMA session with its file operations recorded: the co-processor's
  // workload runs twice (a restart in between), so the second run
  // overwrites every block the first one wrote.
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
  const std::vector<FileOp> ops = read_journal(journal, "/data/vendor/aon/", write_done);
  ASSERT_GT(ops.size(), 20u) << "the journal holds too few operations";
  size_t generated = 0;
  std::vector<CrashState> states = crash_states(ops, kTearBlock, &generated);
  std::set<size_t> picked{0, states.size() - 1};  // with a handful between, unless every state is swept
  for (size_t k = 1; k < 6; ++k) picked.insert(k * states.size() / 6);
  const char* sweep = std::getenv("MARLO_SWEEP");
  for (size_t i = 0; sweep != nullptr && std::string(sweep) == "all" && i < states.size(); ++i) picked.insert(i);
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
