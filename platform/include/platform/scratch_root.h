// Test builds only: the directory under which the file calls of os.h and
// platform::path resolve absolute device paths ("/sys/x" -> "<dir>/sys/x"),
// so that one test source reaches its files in a scratch directory on either
// backend. The host backend defines it (the directory is the virtual device's
// root, MARLO_ROOT). On the device only the test module's
// platform/device/testing/scratch_paths.cc defines it; marlod does not link
// that file, so a daemon that called this would not link.
#pragma once

#include <string>

namespace platform {

// An empty `dir` makes device paths resolve as given again.
void set_scratch_root(const std::string& dir);

}  // namespace platform
