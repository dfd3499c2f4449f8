// The reference-counted kernel wakelock and what it writes to the kernel.
#include "comhandler/client_wakelock.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {
namespace {

const std::string kRecord("MARLODAEMON_WAKEUP\0", 19);

TEST(Wakelock, OnlyTheFirstAndLastReferenceReachTheKernel) {
  TestRoot root;
  root.write("/sys/power/wake_lock", "");
  root.write("/sys/power/wake_unlock", "");
  LogCapture log;
  client_wakelock lock;
  lock.put_n_locks(1);
  EXPECT_TRUE(log.contains("_in_count 1 is larger than _accu_count 0"));
  lock.get_n_locks(1);
  lock.get_n_locks(1);
  lock.put_n_locks(1);
  EXPECT_EQ(root.read("/sys/power/wake_lock"), kRecord);
  EXPECT_EQ(root.read("/sys/power/wake_unlock"), "");
  lock.put_n_locks(1);
  EXPECT_EQ(root.read("/sys/power/wake_unlock"), kRecord);
  lock.get_n_locks(1);
  EXPECT_EQ(root.read("/sys/power/wake_lock"), kRecord + kRecord);
}

TEST(Wakelock, MissingKernelFileIsLoggedAndTheCountStillRises) {
  TestRoot root;
  root.write("/sys/power/wake_unlock", "");
  LogCapture log;
  client_wakelock lock;
  lock.get_n_locks(1);
  lock.get_n_locks(1);
  lock.put_n_locks(2);
  EXPECT_FALSE(log.contains("is larger than")) << "both references were counted";
  lock.get_n_locks(1);
  EXPECT_EQ(log.count("Not able to open fd for wakeup:MARLODAEMON_WAKEUP"), 2);
}

}  // namespace
}  // namespace marlo::test
