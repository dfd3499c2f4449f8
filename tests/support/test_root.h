// A fresh device root for one test: a temporary directory under which the
// daemon's device paths resolve while the object lives (the scratch root of
// platform/scratch_root.h: MARLO_ROOT on the host backend, the test module's
// prefix on a device), with the host backend's time scale set so that the
// daemon's fixed sleeps take a thousandth of their time.
#pragma once

#include <string>

namespace marlo::test {

class TestRoot {
 public:
  explicit TestRoot(double time_scale = 0.001);
  ~TestRoot();
  TestRoot(const TestRoot&) = delete;
  TestRoot& operator=(const TestRoot&) = delete;

  const std::string& path() const { return path_; }
  // Absolute host path of a device path ("/sys/..." -> "<root>/sys/...").
  std::string at(const std::string& device_path) const;

  // Writes a file below the root, creating its directories.
  void write(const std::string& device_path, const std::string& contents) const;
  std::string read(const std::string& device_path) const;
  bool exists(const std::string& device_path) const;
  void mkdir(const std::string& device_path) const;
  // A relative symbolic link at device_path pointing to target.
  void symlink(const std::string& target, const std::string& device_path) const;

  void set_property(const std::string& name, const std::string& value) const;
  // The property's value; "<unset>" when it has none.
  std::string property(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace marlo::test
