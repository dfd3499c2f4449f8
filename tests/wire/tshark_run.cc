#include "tshark_run.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "common/le32.h"

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

bool edit_capture(const std::string& in, const std::string& out,
                  const std::function<void(uint32_t, std::vector<uint8_t>&)>& edit) {
  std::ifstream file(in, std::ios::binary);
  const std::vector<uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<uint8_t> result;
  size_t at = 0;
  for (uint32_t length; at + 12 <= data.size(); at += length) {
    const uint32_t type = get_le32(&data[at]);
    length = get_le32(&data[at + 4]);
    if (length < 12 || length % 4 != 0 || at + length > data.size()) return false;
    const uint8_t* block = &data[at];
    if (type != 6 || length < 32) {
      result.insert(result.end(), block, block + length);
      continue;
    }
    // Enhanced packet block: type, length, interface, timestamp (2 words), captured and original
    // length, the padded packet, options, the length again.
    const uint32_t captured = get_le32(block + 20);
    const size_t padded = (captured + 3u) & ~size_t{3};
    if (28 + padded + 4 > length) return false;
    std::vector<uint8_t> packet(block + 28, block + 28 + captured);
    edit(get_le32(block + 8), packet);
    std::vector<uint8_t> rebuilt(block, block + 28);
    put_le32(&rebuilt[20], static_cast<uint32_t>(packet.size()));
    put_le32(&rebuilt[24], static_cast<uint32_t>(packet.size()));
    rebuilt.insert(rebuilt.end(), packet.begin(), packet.end());
    rebuilt.resize((rebuilt.size() + 3) & ~size_t{3}, 0);
    rebuilt.insert(rebuilt.end(), block + 28 + padded, block + length);  // options and the length
    put_le32(&rebuilt[4], static_cast<uint32_t>(rebuilt.size()));
    put_le32(&rebuilt[rebuilt.size() - 4], static_cast<uint32_t>(rebuilt.size()));
    result.insert(result.end(), rebuilt.begin(), rebuilt.end());
  }
  std::ofstream(out, std::ios::binary)
      .write(reinterpret_cast<const char*>(result.data()), static_cast<std::streamsize>(result.size()));
  return at == data.size();
}

}  // namespace marlo::wire
