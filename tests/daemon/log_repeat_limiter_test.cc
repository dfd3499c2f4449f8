// The repeat limiter against a fake clock: what is written, what is counted,
// and when the summaries come.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "daemon/log_repeat_limiter.h"

namespace {

constexpr int64_t kMs = 1000000;

// `copies` statements of `line` at `at_ms` (all at the same instant), or a
// flushDue() when `line` is null.
struct Step {
  int64_t at_ms;
  const char* line;
  int copies;
  int prio = 6;
  const char* tag = "t";
};

struct Case {
  const char* name;
  std::vector<Step> steps;
  // Written lines in order, runs of one line as "<line> xN"; summaries as
  // the limiter writes them.
  std::vector<std::string> written;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Runs of one line written as "<line> xN".
std::vector<std::string> runs(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  int count = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    ++count;
    if (i + 1 < lines.size() && lines[i + 1] == lines[i]) continue;
    out.push_back(count == 1 ? lines[i] : lines[i] + " x" + std::to_string(count));
    count = 0;
  }
  return out;
}

const Case kCases[] = {
    {"FloodIsCutAtTenAndSummarisedWhenTheSecondEnds",
     {{0, "flood", 25}, {999, nullptr, 0}, {1000, nullptr, 0}},
     {"flood x10", "flood ... repeated 15 times"}},
    {"TenCopiesInASecondNeedNoSummary", {{0, "ten", 10}, {5000, nullptr, 0}}, {"ten x10"}},
    {"PriorityAndTagSeparateLines",
     {{0, "same", 10, 6, "t"},
      {0, "same", 10, 3, "t"},
      {0, "same", 10, 6, "u"},
      {0, "same", 1, 6, "t"},
      {1000, nullptr, 0}},
     {"same x30", "same ... repeated 1 times"}},
    // The host's scaled clock goes back when a test raises the scale: every
    // window ends rather than holding lines back.
    {"ClockGoingBackEndsTheWindows", {{5000, "x", 11}, {0, "x", 1}}, {"x x10", "x ... repeated 1 times", "x"}},
};

class LimiterCases : public ::testing::TestWithParam<Case> {};

TEST_P(LimiterCases, WritesAndSummarises) {
  int64_t now = 0;
  std::vector<std::string> out;
  LogRepeatLimiter limiter([&now] { return now; }, [&out](int, const char*, const char* text) { out.push_back(text); });
  for (const Step& step : GetParam().steps) {
    now = step.at_ms * kMs;
    if (step.line == nullptr) limiter.flushDue();
    for (int i = 0; i < step.copies; ++i) {
      if (limiter.admit(step.prio, step.tag, step.line)) out.push_back(step.line);
    }
  }
  EXPECT_EQ(runs(out), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(Limiter, LimiterCases, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

// The table is bounded: a line pushed out by newer ones reports what it
// withheld at once, with its own priority and tag, instead of losing it.
TEST(LogRepeatLimiter, LineLeavingTheTableWritesItsSummaryFirst) {
  int64_t now = 0;
  std::vector<std::string> summaries;
  LogRepeatLimiter limiter([&now] { return now; },
                           [&](int prio, const char* tag, const char* text) {
                             summaries.push_back(std::to_string(prio) + " " + tag + " " + text);
                           });
  for (int i = 0; i < 13; ++i) limiter.admit(6, "t", "first");
  for (size_t i = 1; i < LogRepeatLimiter::kSlots; ++i) {
    now += kMs;
    limiter.admit(4, "t", ("line " + std::to_string(i)).c_str());
  }
  EXPECT_TRUE(summaries.empty());
  now += kMs;
  EXPECT_TRUE(limiter.admit(4, "t", "one too many"));
  EXPECT_EQ(summaries, std::vector<std::string>{"6 t first ... repeated 3 times"});
  now += 2000 * kMs;
  limiter.flushDue();
  EXPECT_EQ(summaries.size(), 1u) << "counted once";
}

}  // namespace
