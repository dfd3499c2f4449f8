// What a generated co-processor does, one step at a time, as plain data: a
// script is the device variant the daemon starts against and a list of
// steps. RapidCheck generates and shrinks scripts; a script is written and
// read back as text, one step a line, so that a shrunk failure is replayed
// as a regression case exactly as it was found.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace marlo::property {

enum class Action {
  Wait,         // time passes: `arg` milliseconds
  Restart,      // power-down (channels hang up), `arg` ms offline, power-up
  PowerEvents,  // uevents only, the co-processor stays up: arg 0 down+up, 1 up
  HalfClose,    // the co-processor's end of channel `arg` stops sending, stays open
  MiscAnswer,   // the misc-data answer after `arg` good ones is `detail` (MiscMode)
  DfuHostile,   // an unasked DFU message of kind `arg` (DfuHostileKind)
  Reset,        // "vendor.marlo_reset" set to "1"
  Relaunch,     // the daemon killed and started again
};

// Channels by index, as HalfClose names them.
enum Channel : uint32_t { kDfuChannel = 0, kMiscChannel = 1, kRmaChannel = 2 };

enum MiscMode : uint32_t { kMiscFailure = 0, kMiscSilence = 1, kMiscCutShort = 2 };

enum DfuHostileKind : uint32_t {
  kWrongMagic = 0,
  kWrongCrc = 1,
  kLengthTooLong = 2,
  kLengthTooShort = 3,
  kUnknownCommand = 4,
  kHeaderOnlyHalf = 5,
};

struct Step {
  Action action = Action::Wait;
  uint32_t arg = 0;
  uint32_t detail = 0;  // MiscAnswer: MiscMode in the low byte, cut length above
};

enum class Variant { Flash, Noflash };

struct Script {
  Variant variant = Variant::Flash;
  std::vector<Step> steps;
};

std::string show_step(const Step& step);
std::optional<Step> parse_step(const std::string& line);

// "variant flash|noflash" then one step a line; '#' starts a comment line.
std::string format_script(const Script& script);
// Empty when the text is not a script; `error` says why.
std::optional<Script> parse_script(const std::string& text, std::string* error);

}  // namespace marlo::property
