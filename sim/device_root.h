// Builds a virtual device root: the sysfs files, properties, data
// directories and misc-data files that the daemon finds on a device.
#pragma once

#include <string>

namespace marlo::sim {

struct RootOptions {
  std::string hw_platform = "WDP";     // platform id 0x24 in the patched block
  std::string dload_mode = "mini";     // debug policy 1
  std::string platform_subtype = "0";  // the only supported subtype
  bool twm_exit_pending = false;
  bool aon_present = true;  // ro.vendor.zt_aon_presence
};

// Relative to the root: the remoteproc entry of the co-processor (through
// its class symlink) and the directory the virtual device keeps to itself.
constexpr const char* kRemoteprocState = "/sys/class/remoteproc/remoteproc1/state";
constexpr const char* kSimDir = "/sim";

// Misc-data files and their sizes in the sample root.
constexpr const char* kBtFirmwarePath = "/vendor/bt_firmware/image/mrbtfw20.mbn";
constexpr const char* kBtNvPath = "/vendor/bt_firmware/image/mrnv20.bin";

void build_device_root(const std::string& root, const RootOptions& options);

// A fresh temporary directory to serve as a root.
std::string make_temp_root(const std::string& prefix);

// The property store of section "Properties": one file per property, written
// atomically.
void set_property(const std::string& root, const std::string& name, const std::string& value);
// The value, or `fallback` when the property is unset.
std::string get_property(const std::string& root, const std::string& name, const std::string& fallback = "");

std::string read_text(const std::string& path);
void write_text(const std::string& path, const std::string& text);
// Replaces the file in one step, so that readers never see it half written.
void write_text_atomic(const std::string& path, const std::string& text);

}  // namespace marlo::sim
