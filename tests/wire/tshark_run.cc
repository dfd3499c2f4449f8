#include "tshark_run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace marlo::wire {

namespace {

std::string shell_quoted(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::string::size_type start = 0, end;
  while ((end = s.find(sep, start)) != std::string::npos) {
    parts.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  parts.push_back(s.substr(start));
  return parts;
}

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace

std::string Frame::get(const std::string& name) const {
  auto it = fields.find(name);
  return it == fields.end() || it->second.empty() ? "" : it->second.front();
}

std::vector<std::string> Frame::all(const std::string& name) const {
  auto it = fields.find(name);
  return it == fields.end() ? std::vector<std::string>{} : it->second;
}

long Frame::num(const std::string& name) const {
  std::string v = get(name);
  return v.empty() ? -1 : std::strtol(v.c_str(), nullptr, 0);
}

std::vector<const Frame*> Decoded::where(const std::string& field, const std::string& value) const {
  std::vector<const Frame*> found;
  for (const Frame& f : frames) {
    auto it = f.fields.find(field);
    if (it != f.fields.end() && !it->second.empty() && it->second.front() == value) found.push_back(&f);
  }
  return found;
}

Decoded decode(const std::string& capture, std::vector<std::string> fields) {
  fields.insert(fields.begin(), {"frame.number", "_ws.expert.severity", "_ws.expert.message", "_ws.malformed.expert"});
  // tshark's standard error, in a file of its own (the capture may sit in a read-only source tree).
  std::string errors = (std::filesystem::temp_directory_path() / "marlo-tshark-XXXXXX").string();
  int fd = ::mkstemp(errors.data());
  if (fd >= 0) ::close(fd);
  std::string command = "tshark -2 -R frame -X lua_script:" + shell_quoted(MARLO_DISSECTOR) + " -r " +
                        shell_quoted(capture) + " -T fields -E separator=/t -E occurrence=a -E aggregator='|'";
  for (const std::string& f : fields) command += " -e " + f;
  command += " 2>" + shell_quoted(errors);
  Decoded decoded;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    decoded.error = "cannot run tshark";
    return decoded;
  }
  std::string out;
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  int status = ::pclose(pipe);
  std::ifstream err_file(errors);
  std::string err((std::istreambuf_iterator<char>(err_file)), std::istreambuf_iterator<char>());
  std::remove(errors.c_str());
  if (status != 0) {
    decoded.error = "tshark exited with status " + std::to_string(WEXITSTATUS(status)) +
                    " (not installed? scripts/setup.sh installs it): " + err;
    return decoded;
  }
  if (err.find("Lua") != std::string::npos) decoded.error = "tshark reported: " + err;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> columns = split(line, '\t');
    Frame frame;
    for (size_t i = 0; i < fields.size() && i < columns.size(); ++i) {
      if (!columns[i].empty()) frame.fields[fields[i]] = split(columns[i], '|');
    }
    decoded.frames.push_back(std::move(frame));
  }
  return decoded;
}

bool edit_capture(const std::string& in, const std::string& out,
                  const std::function<void(uint32_t, int, std::vector<uint8_t>&)>& edit) {
  std::ifstream file(in, std::ios::binary);
  std::vector<uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<uint8_t> result;
  std::map<uint32_t, int> counts;
  size_t at = 0;
  while (at + 12 <= data.size()) {
    uint32_t type = le32(data, at), length = le32(data, at + 4);
    if (length < 12 || length % 4 != 0 || at + length > data.size()) return false;
    std::vector<uint8_t> block(data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(at + length));
    if (type == 6 && length >= 32) {
      // Enhanced packet block: interface, timestamp (2 words), captured and original length, the padded
      // packet, options, the length again.
      uint32_t iface = le32(block, 8), captured = le32(block, 20);
      size_t padded = (captured + 3u) & ~size_t{3};
      if (28 + padded + 4 > length) return false;
      std::vector<uint8_t> packet(block.begin() + 28, block.begin() + 28 + static_cast<long>(captured));
      std::vector<uint8_t> options(block.begin() + 28 + static_cast<long>(padded), block.end() - 4);
      edit(iface, counts[iface]++, packet);
      std::vector<uint8_t> rebuilt(block.begin(), block.begin() + 28);
      put32(rebuilt, 20, static_cast<uint32_t>(packet.size()));
      put32(rebuilt, 24, static_cast<uint32_t>(packet.size()));
      rebuilt.insert(rebuilt.end(), packet.begin(), packet.end());
      rebuilt.resize((rebuilt.size() + 3) & ~size_t{3}, 0);
      rebuilt.insert(rebuilt.end(), options.begin(), options.end());
      rebuilt.resize(rebuilt.size() + 4);
      put32(rebuilt, 4, static_cast<uint32_t>(rebuilt.size()));
      put32(rebuilt, rebuilt.size() - 4, static_cast<uint32_t>(rebuilt.size()));
      block = std::move(rebuilt);
    }
    result.insert(result.end(), block.begin(), block.end());
    at += length;
  }
  std::ofstream(out, std::ios::binary)
      .write(reinterpret_cast<const char*>(result.data()), static_cast<std::streamsize>(result.size()));
  return at == data.size();
}

}  // namespace marlo::wire
