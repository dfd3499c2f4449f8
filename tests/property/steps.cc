#include "steps.h"

#include <array>
#include <sstream>

namespace marlo::property {

namespace {

// By Action, in its order.
constexpr std::array<const char*, 8> kActionNames{"wait",        "restart",     "power-events", "half-close",
                                                  "misc-answer", "dfu-hostile", "reset",        "relaunch"};

}  // namespace

std::string show_step(const Step& step) {
  return std::string(kActionNames.at(static_cast<size_t>(step.action))) + " " + std::to_string(step.arg) + " " +
         std::to_string(step.detail);
}

std::optional<Step> parse_step(const std::string& line) {
  std::istringstream in(line.substr(0, line.find('#')));
  std::string name;
  Step step;
  if (!(in >> name >> step.arg >> step.detail)) return std::nullopt;
  std::string rest;
  if (in >> rest) return std::nullopt;
  for (size_t i = 0; i < kActionNames.size(); ++i) {
    if (name == kActionNames[i]) {
      step.action = static_cast<Action>(i);
      return step;
    }
  }
  return std::nullopt;
}

std::string format_script(const Script& script) {
  std::string text = std::string("variant ") + (script.variant == Variant::Noflash ? "noflash" : "flash") + "\n";
  for (const Step& step : script.steps) text += show_step(step) + "\n";
  return text;
}

std::optional<Script> parse_script(const std::string& text, std::string* error) {
  std::istringstream in(text);
  std::optional<Script> script;
  for (std::string line; std::getline(in, line);) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    if (!script && (line == "variant flash" || line == "variant noflash")) {
      script = Script{line == "variant noflash" ? Variant::Noflash : Variant::Flash, {}};
      continue;
    }
    std::optional<Step> step = parse_step(line);
    if (!script || !step) {
      *error = "not a step after a variant line: " + line;
      return std::nullopt;
    }
    script->steps.push_back(*step);
  }
  if (!script) *error = "no variant line";
  return script;
}

}  // namespace marlo::property
