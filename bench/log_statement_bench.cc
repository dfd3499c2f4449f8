// marlo-log-bench: the cost of one log statement as the DFU request path
// makes it (a line with a changing offset, once per packet), and of the
// repeat limiter's part in it (hash and lock), on this machine. The Android
// log of the host build goes to stderr; run with 2>/dev/null.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "daemon/log_repeat_limiter.h"
#include "daemon/marlo_deamon_log.h"

namespace {

constexpr int kStatements = 200000;

template <typename Body>
double ns_per_call(Body body) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kStatements; ++i) body(i);
  const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / kStatements;
}

}  // namespace

int main() {
  marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
  int64_t now = 0;
  LogRepeatLimiter limiter([&now] { return now; }, [](int, const char*, const char*) {});
  const std::string line = "sendImageOffsetResp:412, IMG_OFFSET_REQ offset = 1048576 size = 8192 image id = 3";
  // Each packet's line differs (its offset): every call takes a table slot.
  const double admit_distinct = ns_per_call([&](int i) {
    std::string text = line + std::to_string(i);
    now += 1000;
    limiter.admit(2, "marlo_fw_updater", text.c_str());
  });
  const double admit_same = ns_per_call([&](int) {
    now += 1000;
    limiter.admit(2, "marlo_fw_updater", line.c_str());
  });
  const double statement =
      ns_per_call([](int i) { MARLO_LOGV("IMG_OFFSET_REQ offset = %d size = %d image id = %d", i * 8192, 8192, 3); });
  const double plain = ns_per_call([](int i) {
    __android_log_print(ANDROID_LOG_VERBOSE, "marlo_fw_updater",
                        "%s:%d, IMG_OFFSET_REQ offset = %d size = %d image id = %d", "main", 50, i * 8192, 8192, 3);
  });
  std::printf("limiter, distinct lines (string building included): %.0f ns\n", admit_distinct);
  std::printf("limiter, one repeated line:                         %.0f ns\n", admit_same);
  std::printf("log statement through the limiter:                  %.0f ns\n", statement);
  std::printf("the same line straight to the log:                  %.0f ns\n", plain);
  return 0;
}
