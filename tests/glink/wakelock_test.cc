// The reference-counted kernel wakelock and what it writes to the kernel.
#include "comhandler/client_wakelock.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "daemon/marlo_deamon_log.h"

#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {
namespace {

const std::string kRecord("MARLODAEMON_WAKEUP\0", 19);

// Only the first reference taken and the last given back reach the kernel;
// a reference object gives its reference back exactly once, wherever it ends
// (moved, released early, assigned over, out of scope).
TEST(Wakelock, OnlyTheFirstAndLastReferenceReachTheKernel) {
  TestRoot root;
  root.write("/sys/power/wake_lock", "");
  root.write("/sys/power/wake_unlock", "");
  LogCapture log;
  client_wakelock lock;
  lock.get_n_locks(1);
  lock.get_n_locks(1);
  lock.put_n_locks(1);
  EXPECT_EQ(root.read("/sys/power/wake_lock"), kRecord);
  EXPECT_EQ(root.read("/sys/power/wake_unlock"), "");
  lock.put_n_locks(1);
  EXPECT_EQ(root.read("/sys/power/wake_unlock"), kRecord);
  {
    client_wakelock::reference first(&lock);
    client_wakelock::reference moved(std::move(first));
    client_wakelock::reference early(&lock);
    early.release();
    EXPECT_EQ(lock.references(), 1u);
    moved = client_wakelock::reference(&lock);  // the old one is given back
    EXPECT_EQ(lock.references(), 1u);
    EXPECT_EQ(root.read("/sys/power/wake_unlock"), kRecord);
  }
  EXPECT_EQ(lock.references(), 0u);
  EXPECT_FALSE(log.contains("is larger than")) << "no reference given back twice";
  EXPECT_EQ(root.read("/sys/power/wake_lock"), kRecord + kRecord);
  EXPECT_EQ(root.read("/sys/power/wake_unlock"), kRecord + kRecord);
}

// Each statement reports the function and source line that the device's log
// tools match, whatever line it stands on in the source.
TEST(Wakelock, StatementsReportTheirFixedFunctionAndLine) {
  enum Kernel { kFile, kMissing, kFull };  // kFull: every write fails with ENOSPC
  const std::function<void(client_wakelock&)> none = [](client_wakelock&) {},
                                              get = [](client_wakelock&l) { l.get_n_locks(1); },
                                              get_put = [](client_wakelock&l) { l.get_n_locks(1), l.put_n_locks(1); };
  const struct {
    Kernel lock, unlock;
    std::function<void(client_wakelock&)> run;
    std::string expected;
  } cases[] = {
      {kMissing, kFile, none,
       "client_wakelock:43, fatal error opening \"/sys/power/wake_lock\": No such file or "
       "directory\n"},
      {kFile, kFile, [](client_wakelock& l) { l.get_n_locks(1), l.get_n_locks(-1); },
       "get_n_locks:75, _in_count -1 will overflow max of _accu_count 1"},
      {kFile, kFile, [](client_wakelock& l) { l.put_n_locks(1); },
       "put_n_locks:87, _in_count 1 is larger than _accu_count 0"},
      {kFile, kFile, get, "acquire:108, sucess wakelock acquire:MARLODAEMON_WAKEUP"},
      {kFull, kFile, get,
       "acquire:112, write fail wakelock acquire:MARLODAEMON_WAKEUP, error = No space left on device"},
      {kMissing, kFile, get, "acquire:115, Not able to open fd for wakeup:MARLODAEMON_WAKEUP"},
      {kFile, kFile, get_put, "release:123, sucess release MARLODAEMON_WAKEUP wakelock"},
      {kFile, kFull, get_put,
       "release:126, failed in write:MARLODAEMON_WAKEUP wake unlock, error = No space left on device"},
      {kFile, kMissing, get_put, "release:129, Not able to open fd for wakeup:MARLODAEMON_WAKEUP"},
  };
  marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    TestRoot root;
    for (auto [path, kernel] : {std::pair{"/sys/power/wake_lock", c.lock}, {"/sys/power/wake_unlock", c.unlock}}) {
      if (kernel == kFile) root.write(path, "");
      if (kernel == kFull) root.symlink("/dev/full", path);
    }
    LogCapture log;
    client_wakelock lock;
    c.run(lock);
    int matches = 0;
    for (const LogEntry& entry : log.entries()) matches += entry.msg == c.expected;
    EXPECT_EQ(matches, 1);
  }
}

}  // namespace
}  // namespace marlo::test
