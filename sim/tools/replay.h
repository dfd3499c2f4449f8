// `marlo-sim replay`: plays the device's side of a captured session (see
// sim/capture/session_capture.h) against the unmodified daemon and checks
// every message the daemon sends against the recording, byte for byte.
//
// The device root is rebuilt from the capture's setup comment: the sample
// root, its properties, the co-processor running or not. The player then
// answers the daemon's opens as recorded (opened or refused with the
// recorded errno), sends the recorded inbound messages, uevents and hang-ups,
// and keeps the remoteproc state file as the co-processor would (running
// after a successful LOAD or power-up uevent, offline after SOFT_RESET,
// UNLOAD or a power-down uevent). Order: strict per interface; an inbound
// message goes out only after every outbound message recorded before it
// has arrived. Timestamps are not replayed. A capture covers one run of the
// daemon (a capture spanning a device power cycle, as the demo's does, is
// not replayable).
#pragma once

#include <cstdio>
#include <string>

namespace marlo::sim {

struct ReplayOptions {
  std::string capture;
  std::string marlod;
  double time_scale = 0.01;
  int silence_timeout_ms = 10000;  // longest wait for a recorded daemon message
};

// 0 when the daemon sent exactly the recorded messages; 1 at the first
// difference (described on `out`); 2 when the replay could not run.
int run_replay(const ReplayOptions& options, FILE* out);

}  // namespace marlo::sim
