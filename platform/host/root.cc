#include "host_root.h"

#include <cstdlib>

#include "platform/os.h"
#include "platform/scratch_root.h"

namespace platform::host {

std::string resolve(const char* device_path) {
  const char* root = std::getenv("MARLO_ROOT");
  std::string resolved = (root != nullptr) ? root : "";
  if (device_path == nullptr) return resolved;
  if (device_path[0] != '/') return device_path;  // relative paths stay relative
  while (!resolved.empty() && resolved.back() == '/') resolved.pop_back();
  return resolved + device_path;
}

double time_scale() {
  const char* text = std::getenv("MARLO_TIME_SCALE");
  if (text == nullptr || *text == '\0') return 1.0;
  char* end = nullptr;
  double scale = std::strtod(text, &end);
  if (end == text || *end != '\0' || !(scale > 0.0)) return 1.0;
  return scale;
}

}  // namespace platform::host

namespace platform {

// The scratch root of a test is the virtual device's root.
void set_scratch_root(const std::string& dir) {
  if (dir.empty()) {
    ::unsetenv("MARLO_ROOT");
  } else {
    ::setenv("MARLO_ROOT", dir.c_str(), 1);
  }
}

int access(const char* path, int mode) { return ::access(host::resolve(path).c_str(), mode); }

DIR* opendir(const char* path) { return ::opendir(host::resolve(path).c_str()); }

FILE* fopen(const char* path, const char* mode) { return ::fopen(host::resolve(path).c_str(), mode); }

}  // namespace platform
