#include "comhandler/client_wakelock.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "daemon/marlo_deamon_log.h"
#include "platform/os.h"

namespace {

const char* const kWakeLockPath = "/sys/power/wake_lock";
const char* const kWakeUnlockPath = "/sys/power/wake_unlock";

// The source lines the wakelock's statements report. Tools on the device
// match these lines, so they are fixed here rather than taken from where a
// statement happens to stand in this file.
enum statement_line : int {
  kOpenFailedLine = 43,
  kOverflowLine = 75,
  kUnderflowLine = 87,
  kAcquiredLine = 108,
  kAcquireFailedLine = 112,
  kAcquireNoFileLine = 115,
  kReleasedLine = 123,
  kReleaseFailedLine = 126,
  kReleaseNoFileLine = 129,
};

}  // namespace

// The name the kernel knows this process's lock by.
const char* const g_wakelock_name = "MARLODAEMON_WAKEUP";

// A process-lifetime singleton, never destroyed: a transport's reader may
// still give a reference back while the process exits.
client_wakelock* client_wakelock::get_instance() {
  static client_wakelock* const instance = new client_wakelock();
  return instance;
}

client_wakelock::client_wakelock() {
  // A file that cannot be opened leaves its descriptor at -1; every later
  // transition through it is logged and the count is kept all the same.
  for (auto [path, fd] : {std::pair{kWakeLockPath, &_lock_fd}, std::pair{kWakeUnlockPath, &_unlock_fd}}) {
    fd->reset(platform::open(path, O_RDWR | O_CLOEXEC));
    if (!fd->ok()) MARLO_LOGE_AT(kOpenFailedLine, "fatal error opening \"%s\": %s\n", path, strerror(errno));
  }
}

void client_wakelock::get_n_locks(int count) {
  platform::lock_guard lock(_mutex);
  // A negative count converts to a huge unsigned one and is refused as an
  // overflow as well.
  uint64_t sum = static_cast<uint64_t>(_accu_count) + static_cast<uint32_t>(count);
  if (sum > std::numeric_limits<uint32_t>::max()) {
    MARLO_LOGE_AT(kOverflowLine, "_in_count %d will overflow max of _accu_count %u", count, _accu_count);
    return;
  }
  if (_accu_count == 0 && !_held) acquire();
  _accu_count = static_cast<uint32_t>(sum);
}

void client_wakelock::put_n_locks(unsigned count) {
  platform::lock_guard lock(_mutex);
  if (count > _accu_count) {
    MARLO_LOGE_AT(kUnderflowLine, "_in_count %d is larger than _accu_count %u", count, _accu_count);
    return;
  }
  _accu_count -= count;
  if (_accu_count == 0 && _held) release();
}

uint32_t client_wakelock::references() {
  platform::lock_guard lock(_mutex);
  return _accu_count;
}

void client_wakelock::acquire() {
  if (!_lock_fd.ok()) {
    MARLO_LOGE_AT(kAcquireNoFileLine, "Not able to open fd for wakeup:%s", g_wakelock_name);
    return;
  }
  if (platform::write(_lock_fd.get(), g_wakelock_name, strlen(g_wakelock_name) + 1) >= 1) {
    MARLO_LOGV_AT(kAcquiredLine, "sucess wakelock acquire:%s", g_wakelock_name);
    _held = true;
  } else {
    MARLO_LOGE_AT(kAcquireFailedLine, "write fail wakelock acquire:%s, error = %s", g_wakelock_name, strerror(errno));
  }
}

void client_wakelock::release() {
  if (!_unlock_fd.ok()) {
    MARLO_LOGE_AT(kReleaseNoFileLine, "Not able to open fd for wakeup:%s", g_wakelock_name);
    return;
  }
  if (platform::write(_unlock_fd.get(), g_wakelock_name, strlen(g_wakelock_name) + 1) >= 1) {
    MARLO_LOGV_AT(kReleasedLine, "sucess release %s wakelock", g_wakelock_name);
    _held = false;
  } else {
    MARLO_LOGE_AT(kReleaseFailedLine, "failed in write:%s wake unlock, error = %s", g_wakelock_name, strerror(errno));
  }
}
