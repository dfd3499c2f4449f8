// The unmodified daemon (build/marlod) against a virtual device whose
// co-processor does what a script's steps say, with the invariants that
// must hold after every step and at quiescence. Every check returns an
// empty string when it holds and a one-line description of the violation
// otherwise, so that the generated property and the replayed regression
// cases report alike.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "e2e/e2e_fixture.h"
#include "steps.h"

namespace marlo::property {

// Descriptors and threads of the daemon at quiescence.
struct ProcessShape {
  int descriptors = -1;
  int threads = -1;
};

class DeviceUnderTest : public e2e::DaemonRig {
 public:
  // A fresh root, its device and a started daemon. `start_error` is set when
  // either could not be started.
  DeviceUnderTest(Variant variant, std::string* start_error);

  // Does what the step says, then checks the invariants that hold at every
  // moment (the daemon is alive, what it sent is well-formed, a reset
  // request was served).
  std::string apply(const Step& step);
  // Waits, within a bound, for the work the steps left the daemon to do, and
  // checks the invariants of a quiet daemon: the work is done (a download
  // left the flash exact, a power-up was followed by the push and the RMA
  // workload), the wakelock is released, the descriptors and threads are
  // `baseline`'s (when given), and over a window the daemon uses under 5% of
  // a core and logs under 64 KiB a second.
  std::string quiesce(const ProcessShape* baseline);
  ProcessShape shape() const;

  const Script& script() const { return script_; }

 private:
  std::string check_running() const;
  std::string work_left() const;
  // The daemon's boot has had its version query answered.
  bool version_answered() const;
  void note_restart();
  void note_power_up();

  Script script_;
  // RMA workload runs the co-processor had started before it last went
  // down; a run started after it must complete. -1: no run is owed.
  int runs_before_power_up_ = -1;
  int misc_packets_before_power_up_ = -1;  // misc-data packets received before the last power-up
  // The kernel files' records when the daemon was last killed: a lock the
  // killed daemon held is the kernel's until some release follows.
  size_t takes_at_relaunch_ = 0;
  size_t releases_at_relaunch_ = 0;
};

}  // namespace marlo::property
