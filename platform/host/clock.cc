// Sleeps scaled by MARLO_TIME_SCALE, and the daemon's clock with them; the
// system's clocks (elapsedRealtimeNano) are never scaled.
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdint>

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

double monotonic_real_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
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

// A sleep of s seconds takes s * scale of real time, so one second of the
// daemon's clock is scale seconds of real time. Counted from the first call,
// so that a small scale cannot take it past 64 bits.
int64_t daemon_clock_ns() {
  static const double origin_ns = monotonic_real_ns();
  const double ns = (monotonic_real_ns() - origin_ns) / platform::host::time_scale();
  return ns < 9e18 ? static_cast<int64_t>(ns) : INT64_C(9000000000000000000);
}

}  // namespace platform

namespace android {

int64_t elapsedRealtimeNano() {
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace android
