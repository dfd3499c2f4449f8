// Where the benchmark's threads run. On a machine of few virtual processors
// a wake-up that crosses processors costs tens of microseconds and decides
// which side of a request/response exchange wins; on one processor every
// side pays for its own work only, and the figures repeat from run to run.
#pragma once

#include <string>

namespace marlo::bench {

// Binds the calling thread to the first processor it may run on. Threads and
// processes started from it afterwards (the virtual co-processor, the
// minimal responder, the daemon) inherit the binding. Returns a description
// such as "one processor (cpu 0)", or an empty string when binding failed.
std::string run_on_one_processor();

}  // namespace marlo::bench
