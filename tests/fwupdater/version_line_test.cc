// The version-line matcher against the standard library's ECMAScript search
// of the same expression, on generated lines short enough for its
// backtracking engine.
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>

#include "fwupdater/version_line.h"

namespace marlo::test {
namespace {

const std::regex& reference() {
  static const std::regex expression("\"([^=]*)\": \"([^&]*)&?\"", std::regex::ECMAScript);
  return expression;
}

// Lines built from single characters and from the pieces of the expression,
// so that separators, closing ampersands and equals signs meet often.
std::string generated_line(std::mt19937& random) {
  static const char* const kPieces[] = {"\"", "\": \"", "&", "&\"", "=", " ", ":", "a", "b", "\"x\": \"v\"", ","};
  static const char kChars[] = "\"\"\"::  ==&&&ab\r\t\0\x80\xff";  // NUL and high bytes too
  const size_t length = std::uniform_int_distribution<size_t>(0, 200)(random);
  const bool pieces = random() % 2 == 0;
  std::string line;
  while (line.size() < length) {
    if (pieces) {
      line += kPieces[random() % (sizeof(kPieces) / sizeof(kPieces[0]))];
    } else {
      line += kChars[random() % (sizeof(kChars) - 1)];
    }
  }
  return line;
}

// Whether the expression occurs in the line.
bool expect_same_as_reference(const std::string& line) {
  std::smatch match;
  const bool expected = std::regex_search(line, match, reference());
  std::string value = "untouched";
  EXPECT_EQ(marlo_fw::version_line_value(line, &value), expected) << "line: " << line;
  EXPECT_EQ(value, expected ? match[2].str() : "untouched") << "line: " << line;
  return expected;
}

TEST(VersionLine, GivesTheSecondGroupOfTheLeftmostMatchOfTheExpression) {
  const char* const kLines[] = {
      "",
      "\"\": \"\"",
      "\"k\": \"v&\"",
      "\"k\": \"a&b\"",
      "\"k\": \"a&b\" \"c\"",
      "\"k=\": \"v\"",
      "x \"a\" \"k\": \"v\", \"n\": \"w\"",
      "\"k\": \"&\"",
      "\"k\": \"\"&\"",
      "\"a=\"b\": \"v\"",
      "\"k\": \"v\" = \"j\": \"w&\"",
      "\"k\": \"a\"&b",
  };
  for (const char* line : kLines) expect_same_as_reference(line);
  std::mt19937 random(20261123);
  int matched = 0;
  for (int i = 0; i < 200000 && !HasFailure(); ++i) matched += expect_same_as_reference(generated_line(random));
  // Both outcomes are common, so that both are compared.
  EXPECT_GT(matched, 50000);
  EXPECT_LT(matched, 150000);
}

}  // namespace
}  // namespace marlo::test
