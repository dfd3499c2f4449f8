#include "tshark_run.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace marlo::wire {

namespace {

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::istringstream in(s);
  for (std::string part; std::getline(in, part, sep);) parts.push_back(part);
  return parts;
}

}  // namespace

std::vector<std::string> Frame::all(const std::string& name) const {
  auto it = fields.find(name);
  return it == fields.end() ? std::vector<std::string>{} : it->second;
}

std::string Frame::get(const std::string& name) const {
  std::vector<std::string> values = all(name);
  return values.empty() ? "" : values.front();
}

long Frame::num(const std::string& name) const {
  std::string value = get(name);
  return value.empty() ? -1 : std::strtol(value.c_str(), nullptr, 0);
}

Decoded decode(const std::string& capture, std::vector<std::string> fields) {
  fields.insert(fields.begin(), {"frame.number", "frame.interface_id", "_ws.expert.severity", "_ws.expert.message",
                                 "_ws.malformed.expert"});
  // tshark's standard error lands among the rows: a script error is reported, other notes (running as
  // root) are not.
  std::string command = "tshark -2 -R frame -X lua_script:" MARLO_DISSECTOR " -r '" + capture +
                        "' -T fields -E separator=/t -E occurrence=a -E aggregator='|'";
  for (const std::string& field : fields) command += " -e " + field;
  Decoded decoded;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return Decoded{{}, "cannot run tshark"};
  std::string out;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int status = ::pclose(pipe);
  for (const std::string& line : split(out, '\n')) {
    std::vector<std::string> columns = split(line, '\t');
    if (line.empty() || std::strtol(columns[0].c_str(), nullptr, 10) != static_cast<long>(decoded.frames.size()) + 1) {
      if (line.find("Lua") != std::string::npos || line.find("rror") != std::string::npos) {
        decoded.error += line + "\n";
      }
      continue;
    }
    Frame frame;
    for (size_t i = 0; i < fields.size() && i < columns.size(); ++i) {
      if (!columns[i].empty()) frame.fields[fields[i]] = split(columns[i], '|');
    }
    decoded.frames.push_back(std::move(frame));
  }
  if (status != 0) decoded.error += "tshark failed (not installed? scripts/setup.sh installs it)";
  return decoded;
}

}  // namespace marlo::wire
