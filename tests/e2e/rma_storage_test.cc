// The RMA backing files across a daemon start: what an interrupted creation
// left behind is removed before the co-processor is served.
#include <filesystem>
#include <fstream>

#include "e2e_fixture.h"
#include "sim/rma_client.h"

namespace marlo::e2e {
namespace {

TEST_F(E2e, StaleTemporaryOfAnInterruptedCreationIsRemovedAtStartUp) {
  start_device(noflash_options());
  // A daemon killed while it created the first partition's file.
  const std::string backing = root_ + sim::RmaClient::backing_file(sim::RmaConfig{}.partitions[0]);
  const std::string stale = backing + ".tmp";
  std::ofstream(stale, std::ios::binary) << std::string(1000, '\0');
  ASSERT_EQ(std::filesystem::file_size(stale), 1000u);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  EXPECT_FALSE(std::filesystem::exists(stale));
  EXPECT_EQ(device_->rma().verify_backing_files(), "");
}

}  // namespace
}  // namespace marlo::e2e
