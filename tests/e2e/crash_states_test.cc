// The power-loss model on hand-made journals: what it must offer as
// possible, and what it must never drop.
#include <gtest/gtest.h>

#include "crash_states.h"

namespace marlo::e2e {
namespace {

FileOp op(FileOp::Kind kind, std::string path, std::string to = "") {
  return FileOp{kind, std::move(path), std::move(to), 0, 0, {}};
}

FileOp write(std::string path, uint64_t offset, size_t length, uint8_t value) {
  return FileOp{FileOp::Write, std::move(path), "", offset, length, sim::Bytes(length, value)};
}

bool any_state(const std::vector<CrashState>& states, const std::function<bool(const CrashState&)>& test) {
  return std::any_of(states.begin(), states.end(), test);
}

TEST(CrashStates, UnsyncedWritesAndDirectoryChangesMayBeLostOrTornAndAnswersAreTracked) {
  // A file created, filled and renamed without any sync, then a block
  // written and answered without a sync of its own.
  const std::vector<FileOp> ops{op(FileOp::Create, "1.tmp"), write("1.tmp", 0, 1024, 0),
                                op(FileOp::Rename, "1.tmp", "1"), write("1", 0, 1024, 7), op(FileOp::Answered, "")};
  size_t generated = 0;
  const std::vector<CrashState> states = crash_states(ops, 512, &generated);
  EXPECT_GT(generated, states.size()) << "duplicates are dropped";
  const CrashState& last = states.back();
  ASSERT_EQ(last.cut, ops.size());
  ASSERT_EQ(last.durable.size(), 1u);
  EXPECT_EQ(last.durable[0].name, "1");
  EXPECT_EQ(last.durable[0].data, sim::Bytes(1024, 7));
  auto at_end = [&](const std::function<bool(const CrashState&)>& test) {
    return any_state(states, [&](const CrashState& s) { return s.cut == ops.size() && test(s); });
  };
  EXPECT_TRUE(at_end([](const CrashState& s) { return s.files.empty(); })) << "nothing reached the disk";
  EXPECT_TRUE(at_end([](const CrashState& s) { return s.files.count("1") && s.files.at("1").empty(); }))
      << "the rename without the data";
  EXPECT_TRUE(at_end([](const CrashState& s) {
    return s.files.count("1") && s.files.at("1").size() == 1024 && s.files.at("1")[0] == 7 && s.files.at("1")[600] == 0;
  })) << "the answered block torn at 512";
}

}  // namespace
}  // namespace marlo::e2e
