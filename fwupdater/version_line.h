// The value of a "key": "value" line of a version file, found without a
// regular-expression engine: in time linear in the line and with constant
// stack, whatever the line's length.
#pragma once

#include <string>
#include <string_view>

namespace marlo_fw {

// Searches `line` for the leftmost match of the expression
//   "([^=]*)": "([^&]*)&?"
// with the ECMAScript search's backtracking order (both groups greedy, the
// optional ampersand tried first) and stores its second group in `value`.
// False, with `value` untouched, when the expression occurs nowhere.
bool version_line_value(std::string_view line, std::string* value);

}  // namespace marlo_fw
