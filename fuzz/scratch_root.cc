#include "fuzz/scratch_root.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace marlo::fuzz {

namespace {

std::string make_root() {
  const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string pattern = std::string(base) + "/marlo-fuzz-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  ::setenv("MARLO_ROOT", pattern.c_str(), 1);
  ::setenv("MARLO_TIME_SCALE", "0.0001", 1);
  ::unsetenv("MARLO_LOG_FILE");
  static std::string removed_at_exit;
  removed_at_exit = pattern;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(removed_at_exit, ignored);
  });
  return pattern;
}

}  // namespace

const std::string& scratch_root() {
  static const std::string root = make_root();
  return root;
}

void write_file(const std::string& device_path, const uint8_t* data, size_t size) {
  std::filesystem::path path = scratch_root() + device_path;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

void write_file(const std::string& device_path, const std::string& text) {
  write_file(device_path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

void empty_dir(const std::string& device_path) {
  std::error_code ignored;
  const std::filesystem::path dir = scratch_root() + device_path;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

}  // namespace marlo::fuzz
