// Device backend of the device-side test module (marlod_unit_tests), linked
// in place of paths.cc: the calls that take a path resolve an absolute device
// path under the scratch root a test set (scratch_root.h), then make the
// system call of the same name. Relative paths stay relative. marlod never
// links this file, so the daemon on a device always uses the paths as given.
#include <fcntl.h>

#include <string>

#include "platform/os.h"
#include "platform/scratch_root.h"
#include "platform/thread_annotations.h"

namespace platform {
namespace {

// Set by a test's thread, read by every thread of the code under test.
platform::mutex g_root_mutex;
std::string g_root GUARDED_BY(g_root_mutex);

std::string resolve(const char* device_path) {
  if (device_path == nullptr) return "";
  if (device_path[0] != '/') return device_path;
  lock_guard lock(g_root_mutex);
  return g_root + device_path;
}

}  // namespace

void set_scratch_root(const std::string& dir) {
  lock_guard lock(g_root_mutex);
  g_root = dir;
  while (!g_root.empty() && g_root.back() == '/') g_root.pop_back();
}

int open(const char* path, int flags, mode_t mode) { return ::open(resolve(path).c_str(), flags | O_CLOEXEC, mode); }
int rename(const char* from, const char* to) { return ::rename(resolve(from).c_str(), resolve(to).c_str()); }
int unlink(const char* path) { return ::unlink(resolve(path).c_str()); }
int access(const char* path, int mode) { return ::access(resolve(path).c_str(), mode); }
DIR* opendir(const char* path) { return ::opendir(resolve(path).c_str()); }
FILE* fopen(const char* path, const char* mode) { return ::fopen(resolve(path).c_str(), mode); }

}  // namespace platform
