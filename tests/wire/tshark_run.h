// Runs Debian's tshark with the project's dissector (tools/wireshark/marlo.lua)
// on a capture and returns the decoded fields, one row per frame.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace marlo::wire {

// One frame: field name -> its values in tree order (absent when none).
struct Frame {
  std::map<std::string, std::vector<std::string>> fields;
  std::vector<std::string> all(const std::string& name) const;
  std::string get(const std::string& name) const;  // the first value, or ""
  long num(const std::string& name) const;         // the first value as a number (hex with 0x), -1 when absent
};

struct Decoded {
  std::vector<Frame> frames;
  std::string error;  // why tshark could not decode, or what it reported besides the fields
};

// `tshark -2 -R frame -X lua_script:<dissector> -r capture -T fields -e <each field>`: two passes, each
// dissecting, so that requests learn the frame of their answer. frame.number, frame.interface_id and the
// expert severities and messages are always among the fields.
Decoded decode(const std::string& capture, std::vector<std::string> fields);

}  // namespace marlo::wire
