// `marlo-sim replay`: plays the device's side of a captured session (see
// sim/capture/session_capture.h) against the unmodified daemon and checks
// every message the daemon sends against the recording, byte for byte.
//
// The device root is rebuilt from the capture's setup comment, or for a
// capture made on a device from the device's firmware directories and what
// the capture shows (sim/tools/replay_root.h). The player then answers the
// daemon's opens as recorded (opened or refused with the recorded errno),
// sends the recorded inbound messages, uevents and hang-ups, and keeps the
// remoteproc state file as the co-processor would (running after a
// successful LOAD or power-up uevent, offline after SOFT_RESET, UNLOAD or a
// power-down uevent). Order: strict per connection (per node in a capture
// without streams); an inbound message goes out only after every outbound
// message recorded before it has arrived. Timestamps are not replayed.
//
// Cut messages (a "headers" capture): the bytes beyond the captured length
// of a daemon message are not compared, its length is; neither is the
// checksum word of a cut RMA message, which covers the co-processor's
// memory the replay does not know. An inbound cut message is sent whole,
// its missing bytes zeros and its checksum (DFU, RMA) computed again.
//
// A capture covers one run of the daemon. A recording that lost messages
// (a "dropped ..." record), spans a device power cycle or a second section,
// or ends inside a block is replayable only up to that point: the replay
// names the point and refuses, or with `prefix` replays what comes before.
#pragma once

#include <cstdio>
#include <string>

namespace marlo::sim {

struct ReplayOptions {
  std::string capture;
  std::string marlod;
  std::string images;   // the device's /vendor firmware directories, for a device capture
  bool prefix = false;  // replay the part before the first point that cannot be replayed
  double time_scale = 0.01;
  int silence_timeout_ms = 10000;  // longest wait for a recorded daemon message
};

// 0 when the daemon sent exactly the recorded messages; 1 at the first
// difference (described on `out`); 2 when the replay could not run.
int run_replay(const ReplayOptions& options, FILE* out);

}  // namespace marlo::sim
