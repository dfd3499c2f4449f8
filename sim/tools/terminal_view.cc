#include "sim/tools/terminal_view.h"

#include <unistd.h>

#include "sim/device_root.h"

namespace marlo::sim {

TerminalView::TerminalView(FILE* out) : out_(out), tty_(::isatty(::fileno(out)) == 1) {}

void TerminalView::end_bar() {
  if (bar_open_) std::fputc('\n', out_);
  bar_open_ = false;
}

void TerminalView::line(const std::string& text) {
  end_bar();
  std::fprintf(out_, "%s\n", text.c_str());
  std::fflush(out_);
}

void TerminalView::event(const DeviceEvent& e) { line("  [" + e.source + "] " + e.text); }

void TerminalView::progress(const std::string& label, uint64_t done, uint64_t total) {
  if (total == 0) return;
  int percent = static_cast<int>(std::min<uint64_t>(100, done * 100 / total));
  if (percent == last_percent_) return;
  if (!tty_ && last_percent_ >= 0 && percent / 10 == last_percent_ / 10 && percent != 100) return;
  last_percent_ = percent;
  const int width = 40;
  int filled = percent * width / 100;
  std::string bar = "  " + label + " [" + std::string(static_cast<size_t>(filled), '#') +
                    std::string(static_cast<size_t>(width - filled), '.') + "] " + std::to_string(percent) + "% (" +
                    std::to_string(done / 1024) + "/" + std::to_string(total / 1024) + " KiB)";
  if (tty_) {
    std::fprintf(out_, "\r%s", bar.c_str());
    bar_open_ = true;
  } else {
    std::fprintf(out_, "%s\n", bar.c_str());
  }
  std::fflush(out_);
}

void TerminalView::properties(const std::string& root, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    std::string value = get_property(root, name, "<unset>");
    auto it = seen_.find(name);
    if (it != seen_.end() && it->second == value) continue;
    seen_[name] = value;
    line("  [property] " + name + " = " + value);
  }
}

}  // namespace marlo::sim
