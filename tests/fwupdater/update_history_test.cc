// The update history on its files alone: JSON strings escaped, the last
// records kept, and a damaged file left from before handled without a crash.
// The records' contents are the end-to-end cases' (tests/e2e).
#include "fwupdater/update_history.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {
namespace {

using history::attempt_kind;

history::attempt_facts facts(const std::string& decision) {
  history::attempt_facts f;
  f.decision = decision;
  f.boot_mode = 1;
  return f;
}

std::vector<std::string> records(const TestRoot& root) {
  std::vector<std::string> lines;
  std::istringstream in(root.read(history::kHistoryFile));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(UpdateHistoryJson, StringsAreEscapedToPrintableAscii) {
  const std::pair<std::string, std::string> cases[] = {
      {"v 1.2-x", R"("v 1.2-x")"},
      {"a\"b\\c/", R"("a\"b\\c/")"},
      {"l1\nl2\r\t", R"("l1\nl2\r\t")"},
      {std::string("a\0b\x1f\x7f\xff", 6), R"("a\u0000b\u001f\u007f\u00ff")"},
  };
  for (const auto& [text, json] : cases) EXPECT_EQ(history::json_string(text), json);
}

TEST(UpdateHistory, KeepsTheLastRecordsAndDropsWhatItCannotTrust) {
  TestRoot root;
  LogCapture log;
  root.mkdir("/data/vendor/marlod/");
  // Left by earlier runs: 70 records, a line cut short, garbage, and an
  // attempt that a daemon stop cut short.
  std::string old;
  for (int i = 0; i < 70; ++i) old += "{\"n\":" + std::to_string(i) + "}\n";
  old += "{\"cut\n\x01garbage}\n{\"kind\":\"dfu\",\"outcome\":\"running\"}\n";
  root.write(history::kHistoryFile, old);
  history::update_history h;
  h.record(attempt_kind::misc_data, facts("skip"), "done");
  std::vector<std::string> lines = records(root);
  ASSERT_EQ(lines.size(), history::kMaxRecords);
  EXPECT_EQ(lines[0], "{\"n\":8}");
  EXPECT_EQ(lines[62], R"({"kind":"dfu","outcome":"abandoned: daemon stopped"})");
  EXPECT_NE(lines[63].find(R"("kind":"misc-data","boot_mode":"FLASH","decision":"skip")"), std::string::npos);
  EXPECT_EQ(log.count("2 corrupt lines and 7 lines beyond the last 64 dropped"), 1);

  // A file above the cap is not read; a directory that is gone is logged.
  root.write(history::kHistoryFile, std::string(history::kMaxFileBytes + 1, '{'));
  history::update_history after_cap;
  after_cap.record(attempt_kind::dfu, facts("up-to-date"), "done");
  EXPECT_EQ(records(root).size(), 1u);
  EXPECT_EQ(log.count("its records are dropped"), 1);
  std::filesystem::remove_all(root.at("/data/vendor/marlod/"));
  history::update_history gone;
  gone.record(attempt_kind::dfu, facts("up-to-date"), "done");
  EXPECT_EQ(log.count("update history: creating /data/vendor/marlod/updates.jsonl.tmp failed"), 1);
}

}  // namespace
}  // namespace marlo::test
