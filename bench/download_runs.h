// One download per image size through the real daemon, and the same
// exchange against the minimal responder, each on a fresh device root.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/fragment_recorder.h"
#include "sim/daemon_process.h"

namespace marlo::bench {

struct DaemonDownload {
  DownloadFigures figures;
  uint64_t image_bytes = 0;           // every image the daemon loaded
  uint64_t vm_hwm = 0;                // the daemon's peak resident memory, bytes
  uint64_t log_entries = 0;           // lines of its log file over the whole run
  double cpu_seconds = 0;             // the daemon's processor time (user and system, every thread) over the whole run
  double capture_writer_seconds = 0;  // the processor time of its capture writer thread ("marlod_capture"), if any
};

// build/marlod as a process against a virtual device whose flash.bin has
// `flash_bytes`; throws std::runtime_error when the download does not finish.
// `launcher` runs it under another program (a profiler) when not empty;
// `capture`, when not empty, is the value of the daemon's capture property
// (the capture directory is made).
DaemonDownload run_daemon_download(const std::string& marlod, uint32_t flash_bytes,
                                   const std::vector<std::string>& launcher = {}, const std::string& capture = "");

// How the benchmark runs `marlod` on a device root: as under init, standard
// error going nowhere and the log going to `log_file`; the fixed waits
// before any transfer shortened by the time scale (transfers have none).
sim::DaemonSettings daemon_settings(const std::string& marlod, const std::string& root, const std::string& log_file);

// Ends the daemon: SIGTERM, a while to exit, then SIGKILL.
void stop_daemon(sim::DaemonProcess& daemon);

// The same images and the same virtual co-processor, answered by MinResponder.
DownloadFigures run_min_responder_download(uint32_t flash_bytes);

// The same again, answered by the conformant floor `floor` (build/marlo-floor)
// started as a process like the daemon. `launcher` runs it under another
// program (a profiler) when not empty.
DaemonDownload run_floor_download(const std::string& floor, uint32_t flash_bytes,
                                  const std::vector<std::string>& launcher = {});

// The floor next to this program's executable.
std::string default_floor_path();

}  // namespace marlo::bench
