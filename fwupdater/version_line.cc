#include "fwupdater/version_line.h"

#include <vector>

namespace marlo_fw {
namespace {

constexpr std::string_view kSeparator = "\": \"";
constexpr size_t kNone = std::string_view::npos;

// Where the second group ends when it starts at `p`, or kNone when nothing
// after `p` completes the expression. The group runs greedily up to the
// first ampersand `a` at or after `p`: the ampersand closes the value when a
// quote follows it; otherwise the group gives back characters until a quote
// closes it, which is the last quote in [p, a).
size_t value_end(std::string_view line, size_t p) {
  size_t a = line.find('&', p);
  if (a == kNone) a = line.size();
  if (a + 1 < line.size() && line[a + 1] == '"') return a;
  const size_t quote = line.substr(p, a - p).rfind('"');
  return quote == kNone ? kNone : p + quote;
}

}  // namespace

bool version_line_value(std::string_view line, std::string* value) {
  const size_t n = line.size();
  if (n < 6) return false;  // the shortest match is `"": ""`

  // completes[e]: the separator `": "` starts at e and the rest of the
  // expression matches after it. Computed from the end of the line, so that
  // the first ampersand and the last quote of each ampersand-free stretch
  // are known at every position.
  std::vector<bool> completes(n, false);
  size_t last_quote = kNone;  // last quote between the position and the next ampersand
  bool amp_closes = false;    // a quote follows the next ampersand at or after the position
  for (size_t i = n; i-- > 0;) {
    if (line[i] == '&') {
      last_quote = kNone;
      amp_closes = i + 1 < n && line[i + 1] == '"';
    } else if (line[i] == '"' && last_quote == kNone) {
      last_quote = i;
    }
    // A second group starting at i completes the expression.
    const bool value_from_here = amp_closes || last_quote != kNone;
    if (value_from_here && i >= kSeparator.size() &&
        line.substr(i - kSeparator.size(), kSeparator.size()) == kSeparator) {
      completes[i - kSeparator.size()] = true;
    }
  }

  // The first group cannot cross an equals sign, so a start quote and the
  // separator it reaches lie in the same stretch between equals signs. In
  // each stretch the greedy first group takes the last completing separator;
  // a match exists when a quote stands before it. Stretches are tried from
  // the left, as the search tries start positions.
  size_t first_quote = kNone;
  size_t last_separator = kNone;
  for (size_t i = 0; i <= n; ++i) {
    if (i == n || line[i] == '=') {
      if (first_quote != kNone && last_separator != kNone && first_quote < last_separator) {
        const size_t start = last_separator + kSeparator.size();
        const size_t end = value_end(line, start);
        value->assign(line.substr(start, end - start));
        return true;
      }
      first_quote = kNone;
      last_separator = kNone;
      continue;
    }
    if (line[i] == '"' && first_quote == kNone) first_quote = i;
    if (completes[i]) last_separator = i;
  }
  return false;
}

}  // namespace marlo_fw
