#include "bench/rma_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/download_runs.h"
#include "bench/large_firmware.h"
#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/virtual_device.h"

namespace marlo::bench {

namespace {

constexpr uint32_t kBlock = 4096;
constexpr auto kRunLimit = std::chrono::seconds(120);
constexpr int kRmaRuns = 3;

// The blocks written in place into an existing file of the partition's size,
// as the daemon writes them, each followed by fdatasync.
double plain_blocks_per_second(const std::string& dir, uint32_t partition_bytes) {
  const std::string path = dir + "/plain-loop.bin";
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  // Allocated with zeros first, as the daemon creates a partition at CONNECT.
  std::vector<uint8_t> block(kBlock, 0);
  bool ok = true;
  for (uint32_t offset = 0; ok && offset < partition_bytes; offset += kBlock) {
    ok = ::pwrite(fd, block.data(), kBlock, offset) == static_cast<ssize_t>(kBlock);
  }
  ok = ok && ::fdatasync(fd) == 0;
  const auto start = std::chrono::steady_clock::now();
  int blocks = 0;
  for (uint32_t offset = 0; ok && offset < partition_bytes; offset += kBlock, ++blocks) {
    block[0] = static_cast<uint8_t>(blocks);
    ok = ::pwrite(fd, block.data(), kBlock, offset) == static_cast<ssize_t>(kBlock) && ::fdatasync(fd) == 0;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ::close(fd);
  ::unlink(path.c_str());
  if (!ok) throw std::runtime_error("the plain write loop failed on " + path);
  return blocks / seconds;
}

}  // namespace

namespace {

// One run of the daemon serving a co-processor without flash that writes
// its partition and reads it back. Each run has a fresh device root.
RmaFigures daemon_run(const std::string& marlod, uint32_t partition_bytes) {
  LargeRoot made = make_large_root(0);
  sim::RmaStatus status;
  {
    sim::DeviceOptions options;
    options.variant = sim::Variant::NoflashPsram;
    options.flash = sim::FlashContents::Empty;
    options.running_at_start = true;
    options.rma.partitions = {{7, 1, partition_bytes}};
    options.rma.block_size = kBlock;
    sim::VirtualDevice device(made.root, options);
    sim::DaemonProcess daemon(daemon_settings(marlod, made.root, made.root + "/sim/marlod.log"));
    std::string error;
    if (!daemon.start(&error)) throw std::runtime_error(error);
    const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
    while (device.rma().status().runs_completed < 1 && daemon.alive() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    status = device.rma().status();
    if (status.runs_completed < 1 || status.blocks_written == 0) {
      throw std::runtime_error("the RMA run did not complete; root kept: " + made.root);
    }
    stop_daemon(daemon);
  }
  remove_root(made.root);
  RmaFigures figures;
  figures.blocks = status.blocks_written;
  figures.daemon_blocks_per_second = status.blocks_written / std::chrono::duration<double>(status.write_wait).count();
  if (status.blocks_read > 0) {
    figures.daemon_read_us = std::chrono::duration<double, std::micro>(status.read_wait).count() / status.blocks_read;
  }
  return figures;
}

}  // namespace

RmaFigures run_rma_writes(const std::string& marlod, uint32_t partition_bytes) {
  LargeRoot made = make_large_root(0);
  RmaFigures figures;
  // Interleaved on the same file system as the daemon's backing files:
  // plain, daemon, plain, ..., plain. Each daemon run is set against the
  // mean of the plain runs either side of it, since fdatasync times drift
  // with what else the disk does; the median of those ratios is kept.
  const std::string backing_dir = made.root + "/data/vendor/aon";
  double plain_before = plain_blocks_per_second(backing_dir, partition_bytes);
  std::vector<RmaFigures> runs;
  for (int run = 0; run < kRmaRuns; ++run) {
    RmaFigures one = daemon_run(marlod, partition_bytes);
    const double plain_after = plain_blocks_per_second(backing_dir, partition_bytes);
    one.plain_blocks_per_second = (plain_before + plain_after) / 2;
    plain_before = plain_after;
    runs.push_back(one);
  }
  std::sort(runs.begin(), runs.end(), [](const RmaFigures& x, const RmaFigures& y) {
    return x.daemon_blocks_per_second / x.plain_blocks_per_second <
           y.daemon_blocks_per_second / y.plain_blocks_per_second;
  });
  figures = runs[runs.size() / 2];
  remove_root(made.root);
  return figures;
}

}  // namespace marlo::bench
