// Sleeps scaled by MARLO_TIME_SCALE; clocks are never scaled.
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cmath>

#include <utils/SystemClock.h>

#include "host_root.h"
#include "platform/os.h"

namespace {

// A time of `seconds` as the sleeps take it: scaled by MARLO_TIME_SCALE.
struct timespec scaled_time(double seconds) {
  double scaled = seconds * platform::host::time_scale();
  if (!(scaled > 0.0)) scaled = 0.0;
  struct timespec time;
  time.tv_sec = static_cast<time_t>(scaled);
  time.tv_nsec = static_cast<long>(std::fmod(scaled, 1.0) * 1e9);
  return time;
}

void sleep_scaled(double seconds) {
  struct timespec req = scaled_time(seconds);
  if (req.tv_sec == 0 && req.tv_nsec == 0) return;
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

// The pipe is a plain descriptor, never a device node: the system's poll
// serves it.
int usleep_or_readable(int fd, useconds_t usec) {
  const struct timespec timeout = scaled_time(usec / 1e6);
  struct pollfd entry = {fd, POLLIN, 0};
  for (;;) {
    const int ready = ::ppoll(&entry, 1, &timeout, nullptr);
    if (ready >= 0) return ready > 0 ? 1 : 0;
    if (errno != EINTR) return -1;
  }
}

}  // namespace platform

namespace android {

int64_t elapsedRealtimeNano() {
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace android
