#include "capture/current_file.h"

#include <mutex>

namespace marlo::capture {

namespace {

std::mutex& name_lock() {
  static std::mutex lock;
  return lock;
}

std::string& name() {
  static std::string* const value = new std::string();  // never destroyed: read by late threads
  return *value;
}

}  // namespace

std::string current_file() {
  std::lock_guard<std::mutex> lock(name_lock());
  return name();
}

void publish_current_file(const std::string& file) {
  std::lock_guard<std::mutex> lock(name_lock());
  name() = file;
}

}  // namespace marlo::capture
