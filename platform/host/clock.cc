// Sleeps scaled by MARLO_TIME_SCALE; clocks are never scaled.
#include <time.h>

#include <cerrno>
#include <cmath>

#include <utils/SystemClock.h>

#include "host_root.h"
#include "platform/os.h"

namespace {

void sleep_scaled(double seconds) {
  double scaled = seconds * platform::host::time_scale();
  if (!(scaled > 0.0)) return;
  struct timespec req;
  req.tv_sec = static_cast<time_t>(scaled);
  req.tv_nsec = static_cast<long>(std::fmod(scaled, 1.0) * 1e9);
  while (nanosleep(&req, &req) == -1 && errno == EINTR) {
  }
}

}  // namespace

namespace platform {

unsigned int sleep(unsigned int seconds) {
  sleep_scaled(seconds);
  return 0;
}

int usleep(useconds_t usec) {
  sleep_scaled(usec / 1e6);
  return 0;
}

}  // namespace platform

namespace android {

int64_t elapsedRealtimeNano() {
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace android
