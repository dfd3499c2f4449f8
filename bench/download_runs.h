// One download per image size through the real daemon, and the same
// exchange against the minimal responder, each on a fresh device root.
#pragma once

#include <cstdint>
#include <string>

#include "bench/fragment_recorder.h"
#include "sim/daemon_process.h"

namespace marlo::bench {

struct DaemonDownload {
  DownloadFigures figures;
  uint64_t image_bytes = 0;  // every image the daemon loaded
  uint64_t vm_hwm = 0;       // the daemon's peak resident memory, bytes
  uint64_t log_entries = 0;  // lines of its log file over the whole run
};

// build/marlod as a process against a virtual device whose flash.bin has
// `flash_bytes`; throws std::runtime_error when the download does not finish.
DaemonDownload run_daemon_download(const std::string& marlod, uint32_t flash_bytes);

// How the benchmark runs `marlod` on a device root: as under init, standard
// error going nowhere and the log going to `log_file`; the fixed waits
// before any transfer shortened by the time scale (transfers have none).
sim::DaemonSettings daemon_settings(const std::string& marlod, const std::string& root, const std::string& log_file);

// Ends the daemon: SIGTERM, a while to exit, then SIGKILL.
void stop_daemon(sim::DaemonProcess& daemon);

// The same images and the same virtual co-processor, answered by MinResponder.
DownloadFigures run_min_responder_download(uint32_t flash_bytes);

}  // namespace marlo::bench
