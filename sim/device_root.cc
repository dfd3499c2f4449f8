#include "sim/device_root.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace marlo::sim {

namespace {

void add_remoteproc(const fs::path& root, const std::string& entry, const std::string& device_dir,
                    const std::string& name, const std::string& state) {
  fs::path target = root / "sys/devices/platform/soc" / device_dir / "remoteproc" / entry;
  fs::create_directories(target);
  write_text((target / "name").string(), name + "\n");
  write_text((target / "state").string(), state + "\n");
  fs::path link = root / "sys/class/remoteproc" / entry;
  fs::create_directories(link.parent_path());
  fs::remove(link);
  // Relative, so that it resolves inside the root.
  fs::create_directory_symlink(fs::path("../../devices/platform/soc") / device_dir / "remoteproc" / entry, link);
}

std::string sample_bytes(size_t count, unsigned seed) {
  std::string out(count, '\0');
  for (size_t i = 0; i < count; ++i) out[i] = static_cast<char>((i * 131 + seed * 17 + (i >> 7)) & 0xFF);
  return out;
}

}  // namespace

void build_device_root(const std::string& root_dir, const RootOptions& o) {
  fs::path root(root_dir);
  add_remoteproc(root, "remoteproc0", "soc:zeno,rproc-adsp", "soc:zeno,rproc-adsp", "running");
  add_remoteproc(root, "remoteproc1", "soc:zeno,rproc-marlo", "soc:zeno,rproc-marlo", "offline");
  write_text((root / "sys/devices/soc0/platform_subtype_id").string(), o.platform_subtype + "\n");
  write_text((root / "sys/devices/soc0/hw_platform").string(), o.hw_platform + "\n");
  write_text((root / "sys/kernel/dload/dload_mode").string(), o.dload_mode + "\n");
  write_text((root / "sys/class/pmic-lpm/pmic_twm_exit").string(), o.twm_exit_pending ? "1\n" : "0\n");
  write_text((root / "sys/power/wake_lock").string(), "");
  write_text((root / "sys/power/wake_unlock").string(), "");
  fs::create_directories(root / "dev/__properties__");
  fs::create_directories(root / "data/vendor/aon");
  fs::create_directories(root / "data/vendor/marlod");
  fs::create_directories(root / "vendor/firmware_mnt/verinfo");
  fs::create_directories(root / "sim");
  // Sizes chosen so that the misc-data packets split into several chunks.
  write_text(root_dir + kBtFirmwarePath, sample_bytes(10000, 1));
  write_text(root_dir + kBtNvPath, sample_bytes(1234, 2));
  if (o.aon_present) set_property(root_dir, "ro.vendor.zt_aon_presence", "1");
}

std::string make_temp_root(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

void set_property(const std::string& root, const std::string& name, const std::string& value) {
  if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
    throw std::invalid_argument("bad property name: " + name);
  }
  fs::path dir = fs::path(root) / "dev/__properties__";
  fs::create_directories(dir);
  fs::path temp = dir / ("." + name + ".sim." + std::to_string(::getpid()));
  write_text(temp.string(), value.substr(0, 91));
  fs::rename(temp, dir / name);  // same directory: atomic
}

std::string get_property(const std::string& root, const std::string& name, const std::string& fallback) {
  fs::path file = fs::path(root) / "dev/__properties__" / name;
  if (!fs::exists(file)) return fallback;
  return read_text(file.string());
}

std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

void write_text(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void write_text_atomic(const std::string& path, const std::string& text) {
  std::string temp = path + ".sim-tmp";
  write_text(temp, text);
  fs::rename(temp, path);
}

}  // namespace marlo::sim
