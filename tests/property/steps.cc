#include "steps.h"

#include "rma_probe.h"

#include <array>
#include <sstream>

namespace marlo::property {

namespace {

struct ActionName {
  Action action;
  const char* name;
};

constexpr std::array<ActionName, 9> kActionNames{{
    {Action::Wait, "wait"},
    {Action::Restart, "restart"},
    {Action::PowerEvents, "power-events"},
    {Action::HalfClose, "half-close"},
    {Action::MiscAnswer, "misc-answer"},
    {Action::DfuHostile, "dfu-hostile"},
    {Action::Reset, "reset"},
    {Action::Relaunch, "relaunch"},
    {Action::Rma, "rma"},
}};

const char* name_of(Action action) {
  for (const ActionName& entry : kActionNames) {
    if (entry.action == action) return entry.name;
  }
  return "?";
}

std::string explain(const Step& step) {
  static const char* const kChannels[] = {"dfu", "misc", "rma"};
  static const char* const kMisc[] = {"failure status", "no answer then silence", "cut short then silence"};
  static const char* const kHostile[] = {
      "wrong magic",     "wrong CRC",    "length beyond the packet", "length short of packet",
      "unknown command", "half a header"};
  switch (step.action) {
    case Action::Wait: return std::to_string(step.arg) + " ms";
    case Action::Restart: return "offline " + std::to_string(step.arg) + " ms";
    case Action::PowerEvents: return step.arg == 0 ? "down and up, channels kept" : "up only";
    case Action::HalfClose: return step.arg < 3 ? kChannels[step.arg] : "?";
    case Action::MiscAnswer: {
      const uint32_t mode = step.detail & 0xFF;
      std::string text = std::string(mode < 3 ? kMisc[mode] : "?") + " after " + std::to_string(step.arg) + " answers";
      if (mode == kMiscCutShort) text += ", " + std::to_string(step.detail >> 8) + " bytes";
      return text;
    }
    case Action::DfuHostile: return step.arg < 6 ? kHostile[step.arg] : "?";
    case Action::Rma: return describe_rma_step(step);
    case Action::Reset:
    case Action::Relaunch: break;
  }
  return "";
}

}  // namespace

std::string show_step(const Step& step) {
  std::string text =
      std::string(name_of(step.action)) + " " + std::to_string(step.arg) + " " + std::to_string(step.detail);
  const std::string why = explain(step);
  return why.empty() ? text : text + "  # " + why;
}

std::optional<Step> parse_step(const std::string& line) {
  std::istringstream in(line.substr(0, line.find('#')));
  std::string name;
  Step step;
  if (!(in >> name >> step.arg >> step.detail)) return std::nullopt;
  std::string rest;
  if (in >> rest) return std::nullopt;
  for (const ActionName& entry : kActionNames) {
    if (name == entry.name) {
      step.action = entry.action;
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
  std::string line;
  Script script;
  bool have_variant = false;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.find_first_not_of(" \t") == std::string::npos || line[line.find_first_not_of(" \t")] == '#') continue;
    if (!have_variant) {
      if (line == "variant flash" || line == "variant noflash") {
        script.variant = line == "variant noflash" ? Variant::Noflash : Variant::Flash;
        have_variant = true;
        continue;
      }
      *error = "line " + std::to_string(number) + ": expected \"variant flash\" or \"variant noflash\"";
      return std::nullopt;
    }
    std::optional<Step> step = parse_step(line);
    if (!step) {
      *error = "line " + std::to_string(number) + ": not a step: " + line;
      return std::nullopt;
    }
    script.steps.push_back(*step);
  }
  if (!have_variant) {
    *error = "no variant line";
    return std::nullopt;
  }
  return script;
}

}  // namespace marlo::property
