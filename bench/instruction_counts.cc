#include "bench/instruction_counts.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <vector>

#include "bench/download_runs.h"

namespace marlo::bench {

namespace {

constexpr uint32_t kSmallBytes = 1u << 20;
constexpr uint32_t kLargeBytes = 5u << 20;

struct Count {
  uint64_t instructions = 0;
  size_t requests = 0;
};

// The sum of the "totals:" lines of every profile in `dir` (one per process).
uint64_t total_instructions(const std::filesystem::path& dir) {
  uint64_t sum = 0;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    std::ifstream in(file.path());
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("totals:", 0) == 0) sum += std::strtoull(line.c_str() + 7, nullptr, 10);
    }
  }
  return sum;
}

using Run = std::function<DaemonDownload(uint32_t, const std::vector<std::string>&)>;

Count count_one(const Run& run, uint32_t bytes, const std::string& keep_as) {
  char pattern[] = "/tmp/marlo-callgrind-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a directory for the profiles");
  const std::filesystem::path dir = pattern;
  const std::vector<std::string> launcher = {"valgrind", "--tool=callgrind", "--quiet",
                                             "--callgrind-out-file=" + (dir / "callgrind.%p.out").string()};
  const DaemonDownload download = run(bytes, launcher);
  Count count{total_instructions(dir), download.figures.fragments};
  if (!keep_as.empty()) {
    for (const auto& file : std::filesystem::directory_iterator(dir)) {
      std::filesystem::copy_file(file.path(), keep_as, std::filesystem::copy_options::overwrite_existing);
    }
  }
  std::filesystem::remove_all(dir);
  if (count.instructions == 0) throw std::runtime_error("callgrind wrote no profile (is valgrind installed?)");
  return count;
}

double per_request(const Run& run, const std::string& keep_as) {
  const Count small = count_one(run, kSmallBytes, "");
  const Count large = count_one(run, kLargeBytes, keep_as);
  if (large.requests <= small.requests) throw std::runtime_error("the larger download answered no more requests");
  return static_cast<double>(large.instructions - small.instructions) /
         static_cast<double>(large.requests - small.requests);
}

}  // namespace

InstructionFigures count_instructions(const std::string& marlod, const std::string& floor,
                                      const std::string& profiles_dir) {
  const auto kept = [&](const char* name) { return profiles_dir.empty() ? "" : profiles_dir + "/" + name; };
  if (!profiles_dir.empty()) std::filesystem::create_directories(profiles_dir);
  InstructionFigures figures;
  figures.daemon_per_request = per_request(
      [&](uint32_t bytes, const std::vector<std::string>& launcher) {
        return run_daemon_download(marlod, bytes, launcher);
      },
      kept("daemon.out"));
  figures.floor_per_request =
      per_request([&](uint32_t bytes,
                      const std::vector<std::string>& launcher) { return run_floor_download(floor, bytes, launcher); },
                  kept("floor.out"));
  return figures;
}

double daemon_instructions_per_request(const std::string& marlod, const std::string& capture) {
  return per_request(
      [&](uint32_t bytes, const std::vector<std::string>& launcher) {
        return run_daemon_download(marlod, bytes, launcher, capture);
      },
      "");
}

}  // namespace marlo::bench
