// marlo-bench: the download path of build/marlod against the link's own
// limit and against the conformant floor (build/marlo-floor, the least any
// daemon that does what the system requires can do per request), measured
// in one run on one machine; instructions per request of both under
// callgrind; and its RMA writes against a plain synchronous write loop.
// Prints a table and, last, one line of key figures.
//
//   build/marlo-bench [--marlod PATH] [--sizes MIB,MIB,...] [--unpinned]
//                     [--instructions] [--rma] [--profiles DIR]
//
// --marlod runs another executable as the daemon (a profiler wrapping it,
// say; the instruction counts are then those of the wrapper); --sizes
// downloads other image sizes (default 1,16,64; at most 64); --unpinned
// leaves the placement of threads to the scheduler instead of running
// everything on one processor (bench/placement.h); --instructions only
// counts instructions; --rma only measures the RMA writes; --profiles keeps
// the callgrind profiles in DIR.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "bench/download_runs.h"
#include "bench/instruction_counts.h"
#include "bench/misc_run.h"
#include "bench/placement.h"
#include "bench/rma_run.h"
#include "sim/daemon_process.h"

namespace {

constexpr double kMiB = 1048576.0;
constexpr uint32_t kMaxSizeMiB = 64;  // the virtual flash's largest image
constexpr uint32_t kRmaPartitionBytes = 1u << 20;
constexpr uint32_t kMiscFirmwareBytes = 1u << 20;
// Each download is run this many times and the run of median image-phase
// time is shown: one scheduling hiccup must not make a short run's figure.
constexpr int kRuns = 3;

struct SizeRow {
  uint32_t mib = 0;
  marlo::bench::DaemonDownload daemon;
  marlo::bench::DownloadFigures minimal;
  marlo::bench::DaemonDownload floor;
};

double seconds_per_fragment(const marlo::bench::DownloadFigures& f) {
  return f.fragments > 0 ? f.phase_seconds / f.fragments : 0;
}

// The daemon's row carries what it is compared on: the ratio to the minimal
// responder, the time it adds to each request, its log entries per request
// and its memory; the floor's row the same against the floor.
// The RMA writes against the plain loop, and what a request costs without
// its sync: a DATA_WRITE can be answered no sooner than the plain loop's
// write + fdatasync plus that round trip, which bounds rma_ratio.
void print_rma(const marlo::bench::RmaFigures& rma) {
  std::printf("RMA DATA_WRITE, %d blocks of 4 KiB: marlod %.0f blocks/s, write+fdatasync loop %.0f blocks/s\n",
              rma.blocks, rma.daemon_blocks_per_second, rma.plain_blocks_per_second);
  const double plain_us = 1e6 / rma.plain_blocks_per_second;
  std::printf(
      "RMA DATA_READ of the same blocks: %.1f us sent to answered; loop's write+fdatasync %.1f us; "
      "bound for rma_ratio with that round trip %.2f\n",
      rma.daemon_read_us, plain_us, plain_us / (plain_us + rma.daemon_read_us));
}

void print_rows(const SizeRow& row) {
  const marlo::bench::DownloadFigures& d = row.daemon.figures;
  const marlo::bench::DownloadFigures& m = row.minimal;
  const double ratio = d.ms_per_mib() > 0 ? m.ms_per_mib() / d.ms_per_mib() : 0;
  const double added_us = (seconds_per_fragment(d) - seconds_per_fragment(m)) * 1e6;
  const double logs = d.fragments > 0 ? static_cast<double>(row.daemon.log_entries) / d.fragments : 0;
  std::printf("%-5u %-8s %8.1f %8.2f %6.2f %9.1f %7.1f %7.1f %6.1f  %.1f / %.1f\n", row.mib, "marlod",
              d.mib_per_second(), d.ms_per_mib(), ratio, added_us, d.median_us, d.p99_us, logs,
              row.daemon.vm_hwm / kMiB, row.daemon.image_bytes / kMiB);
  std::printf("%-5u %-8s %8.1f %8.2f %6s %9s %7.1f %7.1f\n", row.mib, "minimal", m.mib_per_second(), m.ms_per_mib(), "",
              "", m.median_us, m.p99_us);
  const marlo::bench::DownloadFigures& f = row.floor.figures;
  const double floor_ratio = d.ms_per_mib() > 0 ? f.ms_per_mib() / d.ms_per_mib() : 0;
  const double floor_logs = f.fragments > 0 ? static_cast<double>(row.floor.log_entries) / f.fragments : 0;
  // The floor leaves right after its session, usually before its memory can be read.
  std::printf("%-5u %-8s %8.1f %8.2f %6.2f %9.1f %7.1f %7.1f %6.1f\n", row.mib, "floor", f.mib_per_second(),
              f.ms_per_mib(), floor_ratio, (seconds_per_fragment(d) - seconds_per_fragment(f)) * 1e6, f.median_us,
              f.p99_us, floor_logs);
}

// The daemon's throughput over all sizes together over that of `other`.
template <typename Other>
double ratio_of_totals(const std::vector<SizeRow>& rows, Other other) {
  double daemon_bytes = 0, daemon_seconds = 0, other_bytes = 0, other_seconds = 0;
  for (const SizeRow& row : rows) {
    daemon_bytes += row.daemon.figures.bytes;
    daemon_seconds += row.daemon.figures.phase_seconds;
    other_bytes += other(row).bytes;
    other_seconds += other(row).phase_seconds;
  }
  return (daemon_bytes / daemon_seconds) / (other_bytes / other_seconds);
}

// The run whose `key` is the median of all runs.
template <typename Run, typename Key>
Run median_run(std::vector<Run> runs, Key key) {
  std::sort(runs.begin(), runs.end(), [&](const Run& a, const Run& b) { return key(a) < key(b); });
  return runs[runs.size() / 2];
}

// "1,16,64" to sizes; empty when any of them is not a size from 1 to 64.
std::vector<uint32_t> parse_sizes(const std::string& text) {
  std::vector<uint32_t> sizes;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find(',', start), text.size());
    const std::string item = text.substr(start, end - start);
    char* rest = nullptr;
    const unsigned long mib = std::strtoul(item.c_str(), &rest, 10);
    if (item.empty() || *rest != '\0' || mib < 1 || mib > kMaxSizeMiB) return {};
    sizes.push_back(static_cast<uint32_t>(mib));
    start = end + 1;
  }
  return sizes;
}

// What the daemon's capture of its wire costs: instructions per request
// with it off and at "1" (headers), and the daemon's processor time per MiB
// downloaded, the median of kRuns 64 MiB downloads each way (interleaved).
void print_capture_cost(const std::string& marlod) {
  const double off = marlo::bench::daemon_instructions_per_request(marlod, "");
  const double headers = marlo::bench::daemon_instructions_per_request(marlod, "1");
  std::printf(
      "Instructions per IMG_OFFSET request (callgrind, all threads): capture off %.0f, capture 1 %.0f (+%.0f)\n", off,
      headers, headers - off);
  constexpr uint32_t kMib = 64;
  std::vector<double> off_cpu, headers_cpu, writer;
  for (int run = 0; run < kRuns; ++run) {
    off_cpu.push_back(marlo::bench::run_daemon_download(marlod, kMib << 20).cpu_seconds);
    const marlo::bench::DaemonDownload headers_run = marlo::bench::run_daemon_download(marlod, kMib << 20, {}, "1");
    headers_cpu.push_back(headers_run.cpu_seconds);
    writer.push_back(headers_run.capture_writer_seconds);
  }
  std::sort(off_cpu.begin(), off_cpu.end());
  std::sort(headers_cpu.begin(), headers_cpu.end());
  std::sort(writer.begin(), writer.end());
  const double writer_ms = writer[writer.size() / 2] * 1000 / kMib;
  const double off_ms = off_cpu[off_cpu.size() / 2] * 1000 / kMib;
  const double headers_ms = headers_cpu[headers_cpu.size() / 2] * 1000 / kMib;
  std::printf("Processor time per MiB downloaded (%u MiB, median of %d): capture off %.2f ms, capture 1 %.2f ms\n",
              kMib, kRuns, off_ms, headers_ms);
  std::printf("Capture writer thread, processor time per MiB downloaded (capture 1): %.3f ms\n", writer_ms);
  std::printf("\ncapture_instr_added=%.0f capture_cpu_ms_per_mib_added=%.2f capture_writer_ms_per_mib=%.3f\n",
              headers - off, headers_ms - off_ms, writer_ms);
}

}  // namespace

int main(int argc, char** argv) {
  std::string marlod = marlo::sim::default_marlod_path();
  std::string floor = marlo::bench::default_floor_path();
  std::vector<uint32_t> sizes = {1, 16, 64};
  bool pinned = true;
  bool instructions_only = false;
  bool rma_only = false;
  bool capture_only = false;
  std::string profiles_dir;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--marlod") == 0 && i + 1 < argc) {
      marlod = argv[++i];
    } else if (std::strcmp(argv[i], "--instructions") == 0) {
      instructions_only = true;
    } else if (std::strcmp(argv[i], "--rma") == 0) {
      rma_only = true;
    } else if (std::strcmp(argv[i], "--capture") == 0) {
      capture_only = true;
    } else if (std::strcmp(argv[i], "--profiles") == 0 && i + 1 < argc) {
      profiles_dir = argv[++i];
    } else if (std::strcmp(argv[i], "--unpinned") == 0) {
      pinned = false;
    } else if (std::strcmp(argv[i], "--sizes") == 0 && i + 1 < argc && !(sizes = parse_sizes(argv[++i])).empty()) {
      continue;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--marlod PATH] [--sizes MIB,MIB,...] [--unpinned] [--instructions] "
                   "[--rma] [--capture] [--profiles DIR]\n",
                   argv[0]);
      return 2;
    }
  }
  std::string placement = "as the scheduler chooses";
  if (pinned) {
    placement = marlo::bench::run_on_one_processor();
    if (placement.empty()) {
      std::fprintf(stderr, "marlo-bench: cannot bind to one processor; run with --unpinned\n");
      return 1;
    }
  }
  try {
    if (rma_only) {
      const marlo::bench::RmaFigures rma = marlo::bench::run_rma_writes(marlod, kRmaPartitionBytes);
      print_rma(rma);
      std::printf("\nrma_ratio=%.2f\n", rma.daemon_blocks_per_second / rma.plain_blocks_per_second);
      return 0;
    }
    if (capture_only) {
      print_capture_cost(marlod);
      return 0;
    }
    // Counted first, on a machine the timed runs have not yet warmed.
    const marlo::bench::InstructionFigures instructions = marlo::bench::count_instructions(marlod, floor, profiles_dir);
    char instr_ratio[32];
    std::snprintf(instr_ratio, sizeof(instr_ratio), "%.2f",
                  instructions.daemon_per_request / instructions.floor_per_request);
    std::printf("Instructions per IMG_OFFSET request (callgrind, all threads): marlod %.0f, floor %.0f\n",
                instructions.daemon_per_request, instructions.floor_per_request);
    if (instructions_only) {
      std::printf("\ninstr_ratio=%s\n", instr_ratio);
      return 0;
    }
    std::vector<SizeRow> rows;
    for (uint32_t mib : sizes) {
      std::vector<marlo::bench::DaemonDownload> daemon_runs;
      std::vector<marlo::bench::DownloadFigures> minimal_runs;
      std::vector<marlo::bench::DaemonDownload> floor_runs;
      // Interleaved: a slow spell of the machine falls on all three hosts.
      for (int run = 0; run < kRuns; ++run) {
        daemon_runs.push_back(marlo::bench::run_daemon_download(marlod, mib << 20));
        minimal_runs.push_back(marlo::bench::run_min_responder_download(mib << 20));
        floor_runs.push_back(marlo::bench::run_floor_download(floor, mib << 20));
      }
      SizeRow row;
      row.mib = mib;
      row.daemon = median_run(daemon_runs, [](const auto& r) { return r.figures.phase_seconds; });
      for (const auto& run : daemon_runs) row.daemon.vm_hwm = std::max(row.daemon.vm_hwm, run.vm_hwm);
      row.minimal = median_run(minimal_runs, [](const auto& r) { return r.phase_seconds; });
      row.floor = median_run(floor_runs, [](const auto& r) { return r.figures.phase_seconds; });
      rows.push_back(row);
    }
    const marlo::bench::RmaFigures rma = marlo::bench::run_rma_writes(marlod, kRmaPartitionBytes);
    const marlo::bench::MiscFigures misc = marlo::bench::run_misc_push(marlod, floor, kMiscFirmwareBytes);

    std::printf("DFU image phase, 4 KiB fragments, %s; median of %d runs\n", placement.c_str(), kRuns);
    std::printf(
        "(ratio: the other host's time per MiB over the daemon's; added: time the daemon adds per request "
        "over the other host; latency: request sent to answer received; logs: log entries per request; "
        "peak RSS: the daemon's, the largest of the runs)\n");
    std::printf("%-5s %-8s %8s %8s %6s %9s %7s %7s %6s  %s\n", "MiB", "host", "MiB/s", "ms/MiB", "ratio", "added_us",
                "med_us", "p99_us", "logs", "peak RSS / images (MiB)");
    double rss_over_images = 0;
    for (const SizeRow& row : rows) {
      const double rss_over = (static_cast<double>(row.daemon.vm_hwm) - row.daemon.image_bytes) / kMiB;
      rss_over_images = std::max(rss_over_images, rss_over);
      print_rows(row);
    }
    const double growth = rows.back().daemon.figures.ms_per_mib() / rows.front().daemon.figures.ms_per_mib();
    const double dfu_ratio = ratio_of_totals(rows, [](const SizeRow& r) { return r.minimal; });
    const double dfu_floor_ratio = ratio_of_totals(rows, [](const SizeRow& r) { return r.floor.figures; });
    const double rma_ratio = rma.daemon_blocks_per_second / rma.plain_blocks_per_second;
    std::printf("\n");
    print_rma(rma);
    const SizeRow& largest = rows.back();
    const double added_us =
        (seconds_per_fragment(largest.daemon.figures) - seconds_per_fragment(largest.minimal)) * 1e6;
    std::printf("Misc-data push, %d packets, %.2f MiB: marlod %.1f MiB/s, floor %.1f MiB/s, misc_floor_ratio=%.2f\n",
                misc.packets, misc.bytes / kMiB, misc.bytes / kMiB / misc.daemon_seconds,
                misc.bytes / kMiB / misc.floor_seconds, misc.floor_seconds / misc.daemon_seconds);
    std::printf("added_us_per_request=%.1f (over the minimal responder, at the largest size)\n", added_us);
    std::printf(
        "\ndfu_ratio=%.2f dfu_floor_ratio=%.2f instr_ratio=%s rma_ratio=%.2f per_mib_growth=%.2f "
        "rss_over_images_mib=%.1f\n",
        dfu_ratio, dfu_floor_ratio, instr_ratio, rma_ratio, growth, rss_over_images);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "marlo-bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
