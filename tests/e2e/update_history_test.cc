// The update history as a platform engineer reads it after a field failure:
// after each fault scenario, updates.jsonl tells each attempt's story; and a
// power loss during any of its rewrites leaves the old file or the new one,
// never a part of either.
#include <cstdlib>
#include <functional>
#include <sstream>

#include "crash_states.h"
#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

constexpr const char* kHistory = "/data/vendor/marlod/updates.jsonl";
constexpr auto npos = std::string::npos;

class UpdateHistory;

// One story: what to run, and per record the texts it holds ("!text": does
// not hold).
struct Story {
  const char* name;
  std::function<void(UpdateHistory&)> run;
  std::vector<std::vector<std::string>> records;
};

void PrintTo(const Story& story, std::ostream* out) { *out << story.name; }

class UpdateHistory : public E2e, public ::testing::WithParamInterface<Story> {
 public:
  static std::vector<std::string> records_in(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  void update_from_flash(int restart_offline_ms, int write_delay_ms = 0) {
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::DeviceOptions options;
    options.dfu.fragment_size = 2048;
    options.dfu.write_delay_ms = write_delay_ms;
    options.restart_offline_ms = restart_offline_ms;
    start_device(options);
  }
};

TEST_P(UpdateHistory, TellsEachAttemptsStory) {
  GetParam().run(*this);
  const auto& expected = GetParam().records;
  // One summary line per attempt ended by the daemon running now. The file is
  // read once per look: the daemon may rewrite it between two reads.
  const int summaries = static_cast<int>(expected.size()) - (starts_ - 1);
  std::vector<std::string> lines;
  ASSERT_TRUE(wait_for([&] {
    const bool summarised = log_count("update record: ") >= summaries;
    const std::string text = sim::read_text(root_ + kHistory);
    lines = records_in(text);
    return summarised && lines.size() == expected.size() && text.find("running") == npos;
  })) << sim::read_text(root_ + kHistory);
  for (size_t i = 0; i < expected.size(); ++i) {
    for (const std::string& text : expected[i]) {
      const bool absent = text[0] == '!';
      EXPECT_EQ(lines[i].find(text.substr(absent ? 1 : 0)) == npos, absent) << text << " in " << lines[i];
    }
  }
  EXPECT_EQ(log_count("update record: "), summaries);
}

const std::string kOlderReported = R"("reported":{"apps":")" + sim::older_versions().apps + "\"";
const std::string kShipped = R"("shipped":{"apps":")" + sim::shipped_versions().apps + "\"";

INSTANTIATE_TEST_SUITE_P(
    Scenarios, UpdateHistory,
    ::testing::Values(Story{"RestartDuringDownload",
                            [](UpdateHistory& t) {
                              t.update_from_flash(20);
                              t.device_->at_packet(10, [&t] { return t.device_->restart_on_packet(); });
                              t.start_daemon();
                            },
                            {{R"("kind":"dfu","boot_mode":"FLASH","decision":"download","why":"versions differ")",
                              kOlderReported, kShipped, R"("outcome":"done")", R"("resumptions":1,"restarts":1,)",
                              "!\"hang_ups\":0", R"("capture":null})"}}},
                      Story{"DaemonStoppedMidDownloadThenResumed",
                            [](UpdateHistory& t) {
                              t.update_from_flash(300, 10);
                              t.start_daemon();
                              // Stopped once a checkpoint has written the download's progress.
                              ASSERT_TRUE(t.wait_for([&] {
                                const std::vector<std::string> lines = t.records_in(sim::read_text(t.root_ + kHistory));
                                return !lines.empty() && lines[0].find(R"("fragments":0,)") == npos;
                              }));
                              t.stop_daemon();
                              t.device_->power_cycle();
                              t.start_daemon();
                            },
                            {{R"("decision":"download")", kOlderReported, R"("outcome":"abandoned: daemon stopped")",
                              "!\"fragments\":0,"},
                             {R"("decision":"resume","why":"persist.vendor.zt_aon.dfu_update is 0:)",
                              R"("reported":null)", kShipped, R"("outcome":"done")"}}}),
    [](const ::testing::TestParamInfo<Story>& info) { return info.param.name; });

// Every disk state a power loss can leave during the rewrites of a download's
// record (begun, then ended) holds no file, or one of the texts the daemon
// renamed into place, whole.
TEST_F(E2e, PowerLossDuringARewriteLeavesTheOldOrTheNewFile) {
  const std::string journal = root_ + "/sim/files.journal";
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  start_device({});
  ::setenv("MARLO_FILE_JOURNAL", journal.c_str(), 1);
  start_daemon();
  ::unsetenv("MARLO_FILE_JOURNAL");
  ASSERT_TRUE(wait_for([&] { return sim::read_text(root_ + kHistory).find("\"done\"") != std::string::npos; }));
  stop_daemon();
  const std::vector<FileOp> ops =
      read_journal(journal, "/data/vendor/marlod/", [](const std::string&, const sim::Bytes&) { return false; });

  // The texts renamed into place (each written whole to a new temporary),
  // and the directory sync that makes the first durable: before it, no file
  // is a possible state too.
  sim::Bytes temporary;
  std::vector<sim::Bytes> versions;
  size_t first_durable = ops.size();
  for (size_t i = 0; i < ops.size(); ++i) {
    if (ops[i].kind == FileOp::Create) temporary.clear();
    if (ops[i].kind == FileOp::Write) temporary.insert(temporary.end(), ops[i].data.begin(), ops[i].data.end());
    if (ops[i].kind == FileOp::Rename && ops[i].to == "updates.jsonl") versions.push_back(temporary);
    if (ops[i].kind == FileOp::Sync && ops[i].path.empty() && !versions.empty())
      first_durable = std::min(first_durable, i);
  }
  ASSERT_GE(versions.size(), 2u) << "begun and ended: two rewrites at least";

  size_t generated = 0;
  for (const CrashState& state : crash_states(ops, 512, &generated)) {
    auto file = state.files.find("updates.jsonl");
    if (file == state.files.end()) {
      EXPECT_LE(state.cut, first_durable) << "the record vanished after it was durable (" << state.how << ")";
    } else {
      EXPECT_NE(std::find(versions.begin(), versions.end(), file->second), versions.end())
          << "cut after " << state.cut << " of " << ops.size() << " (" << state.how
          << "): " << std::string(file->second.begin(), file->second.end());
    }
  }
}

}  // namespace
}  // namespace marlo::e2e
