#include "bench/placement.h"

#include <sched.h>

namespace marlo::bench {

std::string run_on_one_processor() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (::sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return "";
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (::sched_setaffinity(0, sizeof(one), &one) != 0) return "";
    return "one processor (cpu " + std::to_string(cpu) + ")";
  }
  return "";
}

}  // namespace marlo::bench
