// The host's property store: one file per property under
// $MARLO_ROOT/dev/__properties__/, holding the value alone. Writers replace
// the file atomically (temporary file, then rename).
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <cutils/properties.h>

#include "host_root.h"

namespace {

constexpr size_t kMaxValue = PROPERTY_VALUE_MAX - 1;

std::string property_dir() { return platform::host::resolve("/dev/__properties__"); }

bool valid_key(const char* key) {
  return key != nullptr && *key != '\0' && std::strchr(key, '/') == nullptr && key[0] != '.';
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  if (valid_key(key)) {
    int fd = ::open((property_dir() + "/" + key).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      ssize_t n = ::read(fd, value, kMaxValue);
      ::close(fd);
      if (n >= 0) {
        value[n] = '\0';
        return static_cast<int>(n);
      }
    }
  }
  size_t len = 0;
  if (default_value != nullptr) {
    len = strnlen(default_value, kMaxValue);
    std::memcpy(value, default_value, len);
  }
  value[len] = '\0';
  return static_cast<int>(len);
}

extern "C" int property_set(const char* key, const char* value) {
  if (!valid_key(key)) return -1;
  if (value == nullptr) value = "";
  std::string dir = property_dir();
  ::mkdir(dir.c_str(), 0755);
  std::string final_path = dir + "/" + key;
  std::string temp_path = dir + "/." + key + ".tmp." + std::to_string(syscall(SYS_gettid));
  int fd = ::open(temp_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  size_t len = strnlen(value, kMaxValue);
  bool ok = ::write(fd, value, len) == static_cast<ssize_t>(len);
  ok = (::close(fd) == 0) && ok;
  if (!ok || ::rename(temp_path.c_str(), final_path.c_str()) != 0) {
    ::unlink(temp_path.c_str());
    return -1;
  }
  return 0;
}
