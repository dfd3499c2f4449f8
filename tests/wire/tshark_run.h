// Runs Debian's tshark with the project's dissector (tools/wireshark/marlo.lua)
// on a capture and returns the decoded fields, one row per frame.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace marlo::wire {

// One frame: field name -> its values in tree order (empty when absent).
struct Frame {
  std::map<std::string, std::vector<std::string>> fields;
  // The first value of `name`, or "" when the frame has none.
  std::string get(const std::string& name) const;
  std::vector<std::string> all(const std::string& name) const;  // every value of `name`
  long num(const std::string& name) const;                      // first value as a number (hex with 0x), -1 when absent
  bool has(const std::string& name) const { return !get(name).empty(); }
};

struct Decoded {
  std::vector<Frame> frames;
  std::string error;  // why tshark could not decode, or what it reported as a script error
  // Frames whose `field` has the value `value`.
  std::vector<const Frame*> where(const std::string& field, const std::string& value) const;
};

// `tshark -2 -R frame -X lua_script:<dissector> -r capture -T fields -e <each field>` (two passes, each
// dissecting: requests learn the frame of their answer); frame.number and the expert
// severities and messages are always among the fields.
Decoded decode(const std::string& capture, std::vector<std::string> fields);

// Copies a pcapng file, letting `edit` change the payload of each enhanced packet block (interface id, the
// index of the packet on that interface, payload). The payload may change size.
bool edit_capture(const std::string& in, const std::string& out,
                  const std::function<void(uint32_t, int, std::vector<uint8_t>&)>& edit);

}  // namespace marlo::wire
