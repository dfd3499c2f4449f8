// Plain terminal output of a watched device: event lines, property changes
// and a download progress bar (redrawn in place with \r only on a tty).
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "sim/event_log.h"

namespace marlo::sim {

class TerminalView {
 public:
  explicit TerminalView(FILE* out);

  void line(const std::string& text);
  void event(const DeviceEvent& e);
  // Draws the bar when the fraction changed; on a non-tty a line per 10%.
  void progress(const std::string& label, uint64_t done, uint64_t total);
  // Prints the properties whose value changed since the last call.
  void properties(const std::string& root, const std::vector<std::string>& names);

 private:
  void end_bar();

  FILE* out_;
  bool tty_;
  bool bar_open_ = false;
  int last_percent_ = -1;
  std::map<std::string, std::string> seen_;
};

}  // namespace marlo::sim
