#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/marlo_deamon_log.h"
#include "support/log_capture.h"

namespace {

int evaluated = 0;
int count_evaluation() { return ++evaluated; }

class LogStatementTest : public ::testing::Test {
 protected:
  void TearDown() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_INFO);
    marlo_deamon_log::set_tag("MarloDaemon");
  }
  marlo::test::LogCapture log_;
};

TEST_F(LogStatementTest, LevelFiltersWithoutEvaluatingArguments) {
  using namespace marlo_deamon_log;
  struct Case {
    log_level level;
    std::vector<int> written;  // the priorities of the four statements below that are written
  };
  const Case cases[] = {
      {LOG_LEVEL_NONE, {}},
      {LOG_LEVEL_ERROR, {ANDROID_LOG_ERROR}},
      {LOG_LEVEL_INFO, {ANDROID_LOG_ERROR, ANDROID_LOG_INFO}},
      {LOG_LEVEL_DEBUG, {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG}},
      {LOG_LEVEL_VERBOSE, {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG, ANDROID_LOG_VERBOSE}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.level);
    set_level(c.level);
    const size_t before = log_.entries().size();
    evaluated = 0;
    MARLO_LOGE("error %d", count_evaluation());
    MARLO_LOGI("info %d", count_evaluation());
    MARLO_LOGD("debug %d", count_evaluation());
    MARLO_LOGV("verbose %d", count_evaluation());
    const auto entries = log_.entries();
    std::vector<int> written;
    for (size_t i = before; i < entries.size(); ++i) written.push_back(entries[i].prio);
    EXPECT_EQ(written, c.written);
    EXPECT_EQ(evaluated, static_cast<int>(c.written.size())) << "a filtered statement's arguments are evaluated";
  }
}

// A statement carries its function and line and the process's tag; the
// stderr copy, once switched on, adds a newline.
TEST_F(LogStatementTest, PrefixesFunctionAndLineAndCopiesToStderr) {
  marlo_deamon_log::set_tag("marlo_fw_updater");
  marlo_deamon_log::enable_stderr_logging();
  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  MARLO_LOGI("Set log level: %d\n", 4);
  const std::string err = ::testing::internal::GetCapturedStderr();
  const std::string text = "TestBody:" + std::to_string(line) + ", Set log level: 4\n";
  EXPECT_NE(err.find(text + "\n"), std::string::npos) << err;
  const auto entries = log_.entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].msg, text);
  EXPECT_EQ(entries[0].tag, "marlo_fw_updater");
}

}  // namespace
