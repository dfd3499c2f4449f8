// Coverage builds only: the daemon never exits on its own and the tests end
// it by a signal, which would lose its gcov counts. SIGTERM writes them out
// first and then ends the process.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

extern "C" void __gcov_dump(void);

namespace {

void write_counts_and_end(int) {
  // Under a file-size limit (the full-storage scenarios) the counts would be
  // cut short and spoil the files that every other run adds to.
  struct rlimit limit = {};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) __gcov_dump();
  _exit(128 + SIGTERM);
}

const bool g_installed = [] {
  struct sigaction action = {};
  action.sa_handler = write_counts_and_end;
  return sigaction(SIGTERM, &action, nullptr) == 0;
}();

}  // namespace
