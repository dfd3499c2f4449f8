// marlod: boots the Marlo co-processor and keeps it served for the life of
// the device. Exits with -19 when the device has no such co-processor.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <android/log.h>
#include <cutils/properties.h>

#include "daemon/MarloDaemon.h"
#include "daemon/marlo_deamon_log.h"
#include "platform/unique_fd.h"

namespace {

// A daemon started with standard input, output or error closed would hand
// that descriptor number to its first open (a channel, a sysfs file), and
// anything later written to standard output or error would land there. The
// free standard descriptors are filled with the real /dev/null first (not a
// device path of the platform, hence the plain open). The ones that land on
// 0-2 stay open for the life of the process; the first one above them is
// not needed and its owner closes it.
void keep_standard_descriptors_open() {
  for (;;) {
    platform::unique_fd null_device(::open("/dev/null", O_RDWR));
    if (!null_device) {
      __android_log_print(ANDROID_LOG_ERROR, nullptr, "Unable to open /dev/null for the standard descriptors\n");
      return;
    }
    if (null_device.get() > STDERR_FILENO) return;  // closed by its owner
    // Landed on a free standard descriptor: kept there for good.
    (void)null_device.release();
  }
}

}  // namespace

int main(int argc, char** argv) {
  keep_standard_descriptors_open();
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--stderr-log") == 0) marlo_deamon_log::enable_stderr_logging();
  }

  MarloDaemon daemon;
  char presence[PROPERTY_VALUE_MAX] = {};
  int length = property_get("ro.vendor.zt_aon_presence", presence, nullptr);
  __android_log_print(ANDROID_LOG_DEBUG, nullptr, "aon_len: %d, ro.vendor.zt_aon_presence: %d \n", length,
                      std::atoi(presence));
  if (std::atoi(presence) != 0) daemon.startMarloDaemon();

  __android_log_print(ANDROID_LOG_INFO, nullptr, "ZT AON not present: Do not perform PIL");
  return -19;
}
