#include "bench/download_runs.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench/large_firmware.h"
#include "bench/min_responder.h"
#include "sim/daemon_process.h"
#include "sim/device_root.h"
#include "sim/virtual_device.h"

namespace marlo::bench {

namespace {

constexpr auto kDownloadLimit = std::chrono::seconds(180);
constexpr double kTimeScale = 0.01;

// VmHWM of /proc/<pid>/status, in bytes; 0 when unreadable.
uint64_t peak_resident_bytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoull(line.substr(6)) * 1024;  // "VmHWM:   1234 kB"
  }
  return 0;
}

// utime and stime of /proc/PID/stat, fields 14 and 15 (after the command
// name in parentheses, which may hold spaces).
double processor_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t end = stat.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(stat.substr(end + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// The time on a processor of the thread of `pid` named `name` (the first
// field of its schedstat, nanoseconds); 0 when there is none.
double thread_seconds(pid_t pid, const std::string& name) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
    std::ifstream comm(task.path() / "comm");
    std::string thread_name;
    std::getline(comm, thread_name);
    if (thread_name != name) continue;
    std::ifstream schedstat(task.path() / "schedstat");
    unsigned long long ns = 0;
    schedstat >> ns;
    return static_cast<double>(ns) / 1e9;
  }
  return 0;
}

uint64_t count_lines(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  uint64_t lines = 0;
  char buffer[1 << 16];
  while (in.read(buffer, sizeof(buffer)) || in.gcount() > 0) {
    lines += static_cast<uint64_t>(std::count(buffer, buffer + in.gcount(), '\n'));
  }
  return lines;
}

bool wait_until(const std::function<bool()>& done, const std::function<bool()>& still_possible) {
  const auto deadline = std::chrono::steady_clock::now() + kDownloadLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    if (!still_possible()) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return done();
}

// The co-processor's DFU side alone, recording every fragment: what the
// minimal responder and the floor download against.
struct DfuSide {
  sim::EventLog log;
  sim::VirtualFlash flash;
  sim::DfuCoprocessor dfu;

  DfuSide(const LargeRoot& made, FragmentRecorder& recorder)
      : flash(made.root + "/sim/flash"), dfu(made.root, flash, log, config(made, recorder)) {
    dfu.start();
  }

  static sim::DfuConfig config(const LargeRoot& made, FragmentRecorder& recorder) {
    sim::DfuConfig config;
    config.image_ids = made.set.image_ids();
    config.on_fragment = recorder.hook();
    return config;
  }
};

}  // namespace

sim::DaemonSettings daemon_settings(const std::string& marlod, const std::string& root, const std::string& log_file) {
  return {marlod, root, log_file, "/dev/null", kTimeScale};
}

void stop_daemon(sim::DaemonProcess& daemon) {
  // SIGTERM first, so that a profiler wrapping the daemon writes its output.
  if (daemon.pid() > 0 && ::kill(daemon.pid(), SIGTERM) == 0) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (daemon.alive() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  daemon.kill();
}

DaemonDownload run_daemon_download(const std::string& marlod, uint32_t flash_bytes,
                                   const std::vector<std::string>& launcher, const std::string& capture) {
  LargeRoot made = make_large_root(flash_bytes);
  sim::set_property(made.root, "persist.vendor.zt_aon.dfu_update", "1");
  if (!capture.empty()) {
    std::filesystem::create_directories(made.root + "/data/vendor/marlod/capture");
    sim::set_property(made.root, "persist.vendor.marlo.capture", capture);
  }
  FragmentRecorder recorder;
  DaemonDownload result;
  result.image_bytes = made.image_bytes;
  {
    sim::DeviceOptions options;
    options.dfu.on_fragment = recorder.hook();
    sim::VirtualDevice device(made.root, options);
    const std::string log_file = made.root + "/sim/marlod.log";
    sim::DaemonSettings settings = daemon_settings(marlod, made.root, log_file);
    if (!launcher.empty()) settings.launcher = launcher;
    sim::DaemonProcess daemon(settings);
    std::string error;
    if (!daemon.start(&error)) throw std::runtime_error(error);
    const bool finished =
        wait_until([&] { return device.dfu().status().sessions_completed >= 1; }, [&] { return daemon.alive(); });
    if (!finished) {
      throw std::runtime_error("download of " + std::to_string(flash_bytes) +
                               " bytes did not finish; root kept: " + made.root);
    }
    result.vm_hwm = peak_resident_bytes(daemon.pid());
    result.cpu_seconds = processor_seconds(daemon.pid());
    result.capture_writer_seconds = thread_seconds(daemon.pid(), "marlod_capture");
    stop_daemon(daemon);
    result.log_entries = count_lines(log_file);
  }
  result.figures = recorder.figures();
  remove_root(made.root);
  return result;
}

DownloadFigures run_min_responder_download(uint32_t flash_bytes) {
  LargeRoot made = make_large_root(flash_bytes);
  FragmentRecorder recorder;
  {
    DfuSide side(made, recorder);
    sim::DfuCoprocessor& dfu = side.dfu;
    MinResponder responder(made.set.images, sim::DfuConfig{}.fragment_size);
    if (!responder.start(made.root + "/dev/glink_pkt_marlo_dfu")) {
      throw std::runtime_error("the minimal responder could not open the DFU channel");
    }
    responder.join();
    // SESSION_END_RESP is on its way to the co-processor's thread.
    wait_until([&] { return dfu.status().sessions_completed >= 1; }, [] { return true; });
    if (dfu.status().sessions_completed < 1) throw std::runtime_error("the minimal responder's download failed");
  }
  remove_root(made.root);
  return recorder.figures();
}

std::string default_floor_path() {
  return (std::filesystem::path(sim::default_marlod_path()).parent_path() / "marlo-floor").string();
}

DaemonDownload run_floor_download(const std::string& floor, uint32_t flash_bytes,
                                  const std::vector<std::string>& launcher) {
  LargeRoot made = make_large_root(flash_bytes);
  // The floor's images, one file per image id, read before its session.
  const std::string image_dir = made.root + "/sim/floor";
  std::filesystem::create_directories(image_dir);
  for (const auto& [id, image] : made.set.images) {
    std::ofstream(image_dir + "/" + std::to_string(id), std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
  }
  FragmentRecorder recorder;
  DaemonDownload result;
  result.image_bytes = made.image_bytes;
  {
    DfuSide side(made, recorder);
    sim::DfuCoprocessor& dfu = side.dfu;
    const std::string log_file = made.root + "/sim/floor.log";
    sim::DaemonSettings settings = daemon_settings(floor, made.root, log_file);
    if (!launcher.empty()) settings.launcher = launcher;
    sim::DaemonProcess process(settings);
    std::string error;
    if (!process.start(&error)) throw std::runtime_error(error);
    wait_until([&] { return dfu.status().sessions_completed >= 1; }, [&] { return process.alive(); });
    // The floor leaves right after its last answer: let the channel hand it over.
    dfu.deliver_pending(std::chrono::seconds(1));
    if (dfu.status().sessions_completed < 1)
      throw std::runtime_error("the floor's download failed; root kept: " + made.root);
    result.vm_hwm = peak_resident_bytes(process.pid());
    // It leaves by itself after the session's end; a profiler around it
    // writes its output on the way out.
    wait_until([&] { return !process.alive(); }, [] { return true; });
    stop_daemon(process);
    result.log_entries = count_lines(log_file);
  }
  result.figures = recorder.figures();
  remove_root(made.root);
  return result;
}

}  // namespace marlo::bench
