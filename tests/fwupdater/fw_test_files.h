// The updater's inputs written into a test's device root.
#pragma once

#include <string>
#include <vector>

#include "support/test_root.h"

namespace marlo::test {

inline const std::string kImageDir = "/vendor/firmware_mnt/image/";
inline const std::string kTablePath = "/vendor/firmware_mnt/image/./partition_table.xml";

// A partition table whose root holds `body`.
inline void write_table(const TestRoot& root, const std::string& body) {
  root.write(kTablePath, "<?xml version=\"1.0\"?>\n<Marlo>\n" + body + "</Marlo>\n");
}

template <typename Bytes>
std::string as_string(const Bytes& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace marlo::test
