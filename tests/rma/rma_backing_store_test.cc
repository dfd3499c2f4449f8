// The RMA backing files and their storage policy on the files alone, without
// a channel, so that they run on a device too.
#include "rma/rma_backing_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_root.h"

namespace marlo::test {
namespace {

using rma::create_result;

const std::string kDir = "/data/vendor/aon/";

class RmaBackingStoreTest : public ::testing::Test {
 protected:
  RmaBackingStoreTest() { root.mkdir(kDir); }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(root.at(kDir))) out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }

  TestRoot root;
};

TEST_F(RmaBackingStoreTest, CreatesZeroFilledFilesOnceAndWithinBothCaps) {
  EXPECT_EQ(rma::create_backing_file("123", 70000), create_result::created);
  EXPECT_EQ(root.read(kDir + "123"), std::string(70000, '\0'));
  root.write(kDir + "123", "kept");
  EXPECT_EQ(rma::create_backing_file("123", 8), create_result::exists);
  EXPECT_EQ(root.read(kDir + "123"), "kept");
  EXPECT_EQ(rma::create_backing_file("456", rma::kMaxPartitionBytes + 1), create_result::refused);

  // A sparse file brings the directory to 8 KiB below its cap.
  root.write(kDir + "789", "");
  std::filesystem::resize_file(root.at(kDir + "789"), rma::kMaxStorageBytes - 4 - 8192);
  EXPECT_EQ(rma::stored_bytes(), rma::kMaxStorageBytes - 8192);
  EXPECT_EQ(rma::create_backing_file("1", 8193), create_result::refused);
  EXPECT_EQ(rma::create_backing_file("1", 8192), create_result::created);
  EXPECT_EQ(names(), (std::vector<std::string>{"1", "123", "789"})) << "no temporary left behind";

  std::filesystem::remove_all(root.at(kDir));
  EXPECT_EQ(rma::create_backing_file("2", 16), create_result::failed);
  EXPECT_FALSE(root.exists(kDir));
}

// A crash part-way through a creation leaves a temporary (the crash sweeps
// show it): start-up removes the temporaries of partition names and nothing
// else.
TEST_F(RmaBackingStoreTest, StartUpRemovesOnlyTheTemporariesOfPartitionNames) {
  for (const char* name : {"12.tmp", "3.tmp", "12", "ab.tmp", ".tmp", "12.tmp.x", "1a.tmp"}) {
    root.write(kDir + name, "x");
  }
  rma::remove_stale_temporaries();
  EXPECT_EQ(names(), (std::vector<std::string>{".tmp", "12", "12.tmp.x", "1a.tmp", "ab.tmp"}));
}

}  // namespace
}  // namespace marlo::test
