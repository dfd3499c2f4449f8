// `marlo-sim demo`: a firmware update of a virtual Marlo from start to end,
// watched as it happens and verified, then a second boot that finds the
// versions matched.
#pragma once

#include <cstdio>
#include <string>

namespace marlo::sim {

struct DemoOptions {
  std::string marlod;        // path of the daemon
  double time_scale = 0.05;  // MARLO_TIME_SCALE for the daemon
  int write_delay_ms = 25;   // flash time per fragment, so the bar can be followed
  bool keep_root = false;
  std::string capture_file;  // the session's pcapng record, when set
};

// 0 when every check passed.
int run_demo(const DemoOptions& options, FILE* out);

}  // namespace marlo::sim
