// The update history as a platform engineer reads it after a field failure:
// after each fault scenario, updates.jsonl tells each attempt's story; and a
// power loss during any of its rewrites leaves the old file or the new one,
// never a part of either.
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numeric>
#include <sstream>

#include "crash_states.h"
#include "e2e_fixture.h"
#include "sim/device_root.h"

namespace marlo::e2e {
namespace {

constexpr const char* kHistory = "/data/vendor/marlod/updates.jsonl";

// The raw JSON value of `key` in one record ("\"done\"", "3", "null").
std::string field(const std::string& line, const std::string& key) {
  const std::string name = "\"" + key + "\":";
  size_t at = line.find(name);
  if (at == std::string::npos) return "<none>";
  at += name.size();
  size_t end = at;
  if (line[at] == '"') {
    for (++end; end < line.size() && line[end] != '"'; ++end) end += line[end] == '\\';
    ++end;
  } else {
    end = line.find_first_of(",}", at);
  }
  return line.substr(at, end - at);
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

class UpdateHistory;

// One story: what to run, and per record the fields expected ("> n": a
// number above n).
struct Story {
  const char* name;
  std::function<void(UpdateHistory&)> run;
  std::vector<std::vector<std::pair<const char*, std::string>>> records;
};
void PrintTo(const Story& story, std::ostream* out) { *out << story.name; }

class UpdateHistory : public E2e, public ::testing::WithParamInterface<Story> {
 public:
  using E2e::device_;
  using E2e::root_;
  using E2e::start_daemon;
  using E2e::start_device;
  using E2e::stop_daemon;
  using E2e::wait_for;

  std::vector<std::string> records() const {
    std::vector<std::string> lines;
    std::istringstream in(sim::read_text(root_ + kHistory));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // Every record ended, `count` of them.
  bool told(size_t count) const {
    const std::vector<std::string> lines = records();
    return lines.size() == count &&
           std::none_of(lines.begin(), lines.end(), [](const std::string& l) { return l.find("running") != l.npos; });
  }
  void update_from_flash(const std::function<void(sim::DeviceOptions&)>& adjust = nullptr) {
    set_property("persist.vendor.zt_aon.dfu_update", "1");
    sim::DeviceOptions options;
    options.dfu.fragment_size = 2048;
    if (adjust) adjust(options);
    start_device(options);
  }
  uint64_t shipped_bytes() const {
    return std::accumulate(shipped_.images.begin(), shipped_.images.end(), uint64_t{0},
                           [](uint64_t sum, const auto& image) { return sum + image.second.size(); });
  }
};

TEST_P(UpdateHistory, TellsEachAttemptsStory) {
  GetParam().run(*this);
  const auto& expected = GetParam().records;
  ASSERT_TRUE(wait_for([&] { return told(expected.size()); })) << sim::read_text(root_ + kHistory);
  const std::vector<std::string> lines = records();
  for (size_t i = 0; i < expected.size(); ++i) {
    // A download done served every shipped image whole.
    if (field(lines[i], "kind") == "\"dfu\"" && field(lines[i], "outcome") == "\"done\"") {
      EXPECT_EQ(field(lines[i], "images"), std::to_string(shipped_.images.size()));
      EXPECT_GE(std::stoull(field(lines[i], "bytes")), shipped_bytes());
    }
    for (const auto& [key, want] : expected[i]) {
      const std::string got = field(lines[i], key);
      if (want.rfind("> ", 0) == 0) {
        EXPECT_GT(std::atoll(got.c_str()), std::atoll(want.c_str() + 2)) << key << " in " << lines[i];
      } else {
        EXPECT_EQ(got, want) << key << " in " << lines[i];
      }
    }
  }
  // The summary log line of each attempt that ended in this daemon.
  EXPECT_EQ(log_count("update record: "), static_cast<int>(expected.size()) - (starts_ > 1 ? 1 : 0));
}

const std::string kOld = quoted(sim::older_versions().apps);
const std::string kNew = quoted(sim::shipped_versions().apps);

INSTANTIATE_TEST_SUITE_P(
    Scenarios, UpdateHistory,
    ::testing::Values(Story{"ResumedDownload",
                            [](UpdateHistory& t) {
                              t.update_from_flash();
                              t.device_->drop_dfu_after(7);
                              t.start_daemon();
                            },
                            {{{"kind", "\"dfu\""},
                              {"decision", "\"download\""},
                              {"boot_mode", "\"FLASH\""},
                              {"outcome", "\"done\""},
                              {"apps", kOld},
                              {"fragments", "> 7"},
                              {"resumptions", "1"},
                              {"hang_ups", "1"},
                              {"restarts", "0"},
                              {"capture", "null"}}}},
                      Story{"RestartDuringDownload",
                            [](UpdateHistory& t) {
                              t.update_from_flash([](sim::DeviceOptions& o) { o.restart_offline_ms = 20; });
                              t.device_->at_packet(10, [&t] { return t.device_->restart_on_packet(); });
                              t.start_daemon();
                            },
                            {{{"decision", "\"download\""},
                              {"outcome", "\"done\""},
                              {"restarts", "1"},
                              {"hang_ups", "> 0"},
                              {"resumptions", "> 0"}}}},
                      Story{"FailedDownload",
                            [](UpdateHistory& t) {
                              t.update_from_flash();
                              std::filesystem::resize_file(t.root_ + "/vendor/firmware_mnt/image/flash.bin", 0);
                              t.start_daemon();
                            },
                            {{{"decision", "\"download\""},
                              {"outcome", "\"failed: flash image empty or missing\""},
                              {"fragments", "0"}}}},
                      Story{"DaemonStoppedMidDownloadThenResumed",
                            [](UpdateHistory& t) {
                              t.update_from_flash([](sim::DeviceOptions& o) { o.dfu.write_delay_ms = 10; });
                              t.start_daemon();
                              // Stopped once a checkpoint has written the download's progress.
                              ASSERT_TRUE(t.wait_for([&] {
                                const std::vector<std::string> lines = t.records();
                                return !lines.empty() && field(lines[0], "fragments") != "0";
                              }));
                              t.stop_daemon();
                              t.device_->power_cycle();
                              t.start_daemon();
                            },
                            {{{"decision", "\"download\""},
                              {"outcome", "\"abandoned: daemon stopped\""},
                              {"apps", kOld},
                              {"fragments", "> 0"}},
                             {{"decision", "\"resume\""},
                              {"outcome", "\"done\""},
                              {"reported", "null"},
                              {"shipped", "{\"apps\":" + kNew}}}},
                      Story{"FlashlessPush",
                            [](UpdateHistory& t) {
                              t.start_device(noflash_options());
                              t.start_daemon();
                            },
                            {{{"kind", "\"misc-data\""},
                              {"decision", "\"push\""},
                              {"boot_mode", "\"HOST\""},
                              {"outcome", "\"done\""},
                              {"images", "2"},
                              {"bytes", "11234"},
                              {"resumptions", "0"}}}}),
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

  // The texts renamed into place, and the directory sync that makes the
  // first of them durable: before it, no file is a possible state too.
  std::map<std::string, sim::Bytes> written;
  std::vector<sim::Bytes> versions;
  size_t first_durable = ops.size();
  for (size_t i = 0; i < ops.size(); ++i) {
    const FileOp& op = ops[i];
    sim::Bytes& file = written[op.path];
    if (op.kind == FileOp::Create) file.clear();
    if (op.kind == FileOp::Truncate) file.resize(op.length);
    if (op.kind == FileOp::Write) {
      file.resize(std::max<size_t>(file.size(), op.offset + op.data.size()));
      std::copy(op.data.begin(), op.data.end(), file.begin() + static_cast<long>(op.offset));
    }
    if (op.kind == FileOp::Rename && op.to == "updates.jsonl") versions.push_back(file);
    if (op.kind == FileOp::Sync && op.path.empty() && !versions.empty()) first_durable = std::min(first_durable, i);
  }
  ASSERT_GE(versions.size(), 2u) << "begun and ended: two rewrites at least";

  size_t generated = 0;
  const std::vector<CrashState> states = crash_states(ops, 512, &generated);
  for (const CrashState& state : states) {
    auto file = state.files.find("updates.jsonl");
    if (file == state.files.end()) {
      EXPECT_LE(state.cut, first_durable) << "the record vanished after it was durable (" << state.how << ")";
    } else {
      EXPECT_NE(std::find(versions.begin(), versions.end(), file->second), versions.end())
          << "cut after " << state.cut << " of " << ops.size() << " (" << state.how
          << "): " << std::string(file->second.begin(), file->second.end());
    }
  }
  std::printf("[ sweep    ] %zu file operations, %zu crash states of the update history\n", ops.size(), states.size());
}

}  // namespace
}  // namespace marlo::e2e
