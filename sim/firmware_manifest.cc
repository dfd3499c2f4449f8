#include "sim/firmware_manifest.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>

namespace marlo::sim {

namespace {
const std::string kBegin = "MARLO-FW-MANIFEST\n";
const std::string kEnd = "END-MANIFEST\n";
}  // namespace

std::string encode_manifest(const FirmwareManifest& m) {
  std::ostringstream out;
  out << kBegin << "apps=" << m.apps << "\n"
      << "dsp=" << m.dsp << "\n"
      << "bt=" << m.bt << "\n"
      << "kapi=" << m.kapi << "\n"
      << "sbl_offset=" << m.sbl_offset << "\n"
      << "p1_size=" << m.p1_size << "\n"
      << "p1_crc=" << m.p1_crc << "\n"
      << kEnd;
  return out.str();
}

std::optional<FirmwareManifest> find_manifest(const Bytes& flash_bin) {
  auto begin = std::find_end(flash_bin.begin(), flash_bin.end(), kBegin.begin(), kBegin.end());
  if (begin == flash_bin.end()) return std::nullopt;
  auto end = std::search(begin, flash_bin.end(), kEnd.begin(), kEnd.end());
  if (end == flash_bin.end()) return std::nullopt;
  std::string body(begin + static_cast<long>(kBegin.size()), end);

  std::map<std::string, std::string> fields;
  std::istringstream lines(body);
  std::string line;
  while (std::getline(lines, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) return std::nullopt;
    fields[line.substr(0, eq)] = line.substr(eq + 1);
  }
  for (const char* key : {"apps", "dsp", "bt", "kapi", "sbl_offset", "p1_size", "p1_crc"}) {
    if (fields.count(key) == 0) return std::nullopt;
  }
  auto number = [&](const char* key) { return static_cast<uint32_t>(std::strtoul(fields[key].c_str(), nullptr, 10)); };
  FirmwareManifest m;
  m.apps = fields["apps"];
  m.dsp = fields["dsp"];
  m.bt = fields["bt"];
  m.kapi = number("kapi");
  m.sbl_offset = number("sbl_offset");
  m.p1_size = number("p1_size");
  m.p1_crc = number("p1_crc");
  return m;
}

}  // namespace marlo::sim
