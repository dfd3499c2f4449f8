// Instructions per IMG_OFFSET request of the daemon and of the conformant
// floor, counted by callgrind (Debian's valgrind): a figure that does not
// move with the machine's load.
#pragma once

#include <string>

namespace marlo::bench {

struct InstructionFigures {
  double daemon_per_request = 0;
  double floor_per_request = 0;
};

// Runs each host under `valgrind --tool=callgrind` for a small and a larger
// download and divides the difference of the process's total instructions
// (every thread) by the difference of the requests answered: the start-up
// and the session's fixed steps cancel out. When `profiles_dir` is not
// empty the larger runs' profiles are kept there (daemon.out, floor.out)
// for callgrind_annotate. Throws std::runtime_error when a run fails.
InstructionFigures count_instructions(const std::string& marlod, const std::string& floor,
                                      const std::string& profiles_dir);

// The daemon's instructions per request alone, the same way, with its
// capture property set to `capture` ("" unset).
double daemon_instructions_per_request(const std::string& marlod, const std::string& capture);

}  // namespace marlo::bench
