#include "support/test_root.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/scratch_root.h"

namespace fs = std::filesystem;

namespace marlo::test {

TestRoot::TestRoot(double time_scale) {
  // The test's temporary directory: /data/local/tmp/ or the test harness's on a device.
  std::string pattern = (fs::path(::testing::TempDir()) / "marlo-root-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  platform::set_scratch_root(path_);
  ::setenv("MARLO_TIME_SCALE", std::to_string(time_scale).c_str(), 1);
  mkdir("/dev/__properties__");
}

TestRoot::~TestRoot() {
  platform::set_scratch_root("");
  ::unsetenv("MARLO_TIME_SCALE");
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TestRoot::at(const std::string& device_path) const { return path_ + device_path; }

void TestRoot::write(const std::string& device_path, const std::string& contents) const {
  fs::create_directories(fs::path(at(device_path)).parent_path());
  std::ofstream out(at(device_path), std::ios::binary | std::ios::trunc);
  out << contents;
}

std::string TestRoot::read(const std::string& device_path) const {
  std::ifstream in(at(device_path), std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

bool TestRoot::exists(const std::string& device_path) const { return fs::exists(at(device_path)); }

void TestRoot::mkdir(const std::string& device_path) const { fs::create_directories(at(device_path)); }

void TestRoot::symlink(const std::string& target, const std::string& device_path) const {
  fs::create_directories(fs::path(at(device_path)).parent_path());
  fs::create_symlink(target, at(device_path));
}

void TestRoot::set_property(const std::string& name, const std::string& value) const {
  write("/dev/__properties__/" + name, value);
}

std::string TestRoot::property(const std::string& name) const {
  std::string device_path = "/dev/__properties__/" + name;
  return exists(device_path) ? read(device_path) : "<unset>";
}

}  // namespace marlo::test
