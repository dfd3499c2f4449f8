// The daemon's own capture of its wire, switched by its property, checked
// against the virtual device's capture of the same session and decoded by
// tshark with the project's dissector.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "e2e_fixture.h"
#include "sim/capture/pcapng_reader.h"
#include "sim/rma_client.h"
#include "wire/tshark_run.h"

namespace marlo::e2e {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr const char* kProperty = "persist.vendor.marlo.capture";
constexpr long kWarn = 0x600000;  // tshark's expert severity "warning"

struct Case {
  const char* name;
  bool update;        // an update from flash; otherwise a flash-less push and RMA
  const char* level;  // the property's value; "" unset
  bool unwritable;    // a file stands where the directory goes
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

// Messages of one interface in one direction, in order.
using Streams = std::map<std::pair<uint32_t, uint32_t>, std::vector<const sim::CapturedPacket*>>;

Streams streams_of(const std::vector<sim::CapturedPacket>& packets) {
  Streams s;
  for (const sim::CapturedPacket& p : packets) {
    if (p.original_length > 0) s[{p.interface, p.flags & 3}].push_back(&p);
  }
  return s;
}

class Capture : public E2e, public ::testing::WithParamInterface<Case> {
 protected:
  std::string dir() const { return root_ + "/data/vendor/marlod/capture"; }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir(), ec)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  // Every packet of the daemon's files, oldest file first.
  std::vector<sim::CapturedPacket> daemon_packets() const {
    std::vector<sim::CapturedPacket> all;
    for (const std::string& name : files()) {
      sim::CaptureFile f;
      std::string error;
      if (sim::read_capture(dir() + "/" + name, &f, &error)) all.insert(all.end(), f.packets.begin(), f.packets.end());
    }
    return all;
  }
};

// A session leaves files that the dissector decodes without a failure and
// that hold the session's messages as the device saw them: whole with "2",
// cut to their headers and protocol words with "1" (no image, misc-data or
// RMA byte), none with the property unset. A directory that cannot hold
// files costs one log line and leaves the wire alone.
TEST_P(Capture, RecordsTheSessionAsTheDeviceSawIt) {
  const Case c = GetParam();
  if (c.unwritable) {
    fs::create_directories(fs::path(dir()).parent_path());
    std::ofstream(dir()) << "not a directory";
  }
  std::error_code ec;  // an existing file in its place stays
  fs::create_directories(dir(), ec);
  if (*c.level != '\0') set_property(kProperty, c.level);
  sim::DeviceOptions options = c.update ? sim::DeviceOptions{} : noflash_options();
  if (c.update) set_property("persist.vendor.zt_aon.dfu_update", "1");
  options.capture_file = root_ + "/sim.pcapng";
  start_device(options);
  start_daemon();
  ASSERT_TRUE(wait_for([&] {
    if (c.update) return update_finished();
    return device_->rma().status().runs_completed >= 1 && device_->misc().status().finishes >= 1;
  }));
  sim::CaptureFile device_side;
  std::string error;
  ASSERT_TRUE(sim::read_capture(options.capture_file, &device_side, &error)) << error;
  const Streams expected = streams_of(device_side.packets);
  if (*c.level == '\0' || c.unwritable) {
    stop_daemon();
    EXPECT_EQ(files(), std::vector<std::string>{});
    EXPECT_EQ(log_count("cannot create a capture file"), c.unwritable ? 1 : 0);
    EXPECT_EQ(fs::is_regular_file(dir()), c.unwritable) << "the file in the directory's place stays";
    const sim::DfuStatus dfu = device_->dfu().status();
    EXPECT_EQ(dfu.crc_errors + dfu.protocol_errors + dfu.resends, 0);
    EXPECT_EQ(dfu.sessions_started, 1);
    return;
  }
  // The daemon's file catches up with what the device recorded by the end.
  std::vector<sim::CapturedPacket> packets;
  ASSERT_TRUE(wait_for([&] {
    packets = daemon_packets();
    const Streams got = streams_of(packets);
    for (const auto& s : expected) {
      auto it = got.find(s.first);
      if (it == got.end() || it->second.size() < s.second.size()) return false;
    }
    return true;
  })) << "the daemon's capture lacks messages the device recorded";
  stop_daemon();
  packets = daemon_packets();
  const bool full = std::string(c.level) == "2";
  int cut = 0;
  for (const auto& s : streams_of(packets)) {
    const auto& want = expected.at(s.first);
    for (size_t i = 0; i < std::min(s.second.size(), want.size()); ++i) {
      const Bytes& got = s.second[i]->data;
      const Bytes& sent = want[i]->data;
      ASSERT_EQ(s.second[i]->original_length, sent.size()) << "interface " << s.first.first << " message " << i;
      ASSERT_LE(got.size(), sent.size());
      ASSERT_TRUE(std::equal(got.begin(), got.end(), sent.begin()))
          << "interface " << s.first.first << " message " << i;
      if (full) {
        ASSERT_EQ(got.size(), sent.size());
      }
      cut += got.size() < sent.size();
    }
  }
  EXPECT_EQ(cut > 0, !full);

  std::string raw;
  for (const std::string& name : files()) {
    std::ifstream in(dir() + "/" + name, std::ios::binary);
    raw.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    EXPECT_EQ(fs::status(dir() + "/" + name).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
  }
  // Stretches of image, misc-data and RMA bytes that no header could hold
  // by chance (many distinct byte values).
  std::vector<Bytes> sources;
  if (c.update) {
    for (const auto& image : shipped_.images) sources.push_back(image.second);
  } else {
    for (const auto& stored : device_->misc().status().stored) sources.push_back(stored.second);
    for (const sim::RmaPartition& p : sim::RmaConfig{}.partitions) sources.push_back(sim::RmaClient::run_pattern(1, p));
  }
  size_t windows = 0, found = 0;
  for (const Bytes& b : sources) {
    for (size_t at = 0; at + 48 <= b.size(); at += 512) {
      if (std::set<uint8_t>(b.begin() + at, b.begin() + at + 48).size() < 16) continue;
      ++windows;
      found += raw.find(std::string(b.begin() + at, b.begin() + at + 48)) != std::string::npos;
    }
  }
  ASSERT_GT(windows, 4u);
  EXPECT_EQ(found, full ? windows : 0u);

  for (const std::string& name : files()) {
    const wire::Decoded d = wire::decode(dir() + "/" + name, {"marlo.event"});
    ASSERT_EQ(d.error, "");
    size_t opens = 0;
    for (const wire::Frame& f : d.frames) {
      opens += f.get("marlo.event") == "open";
      EXPECT_EQ(f.get("_ws.malformed.expert"), "") << name << " frame " << f.get("frame.number");
      for (const std::string& s : f.all("_ws.expert.severity")) {
        EXPECT_LE(std::stol(s), kWarn) << name << " frame " << f.get("frame.number") << ": "
                                       << f.get("_ws.expert.message");
      }
    }
    EXPECT_GT(opens, 0u) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, Capture,
                         ::testing::Values(Case{"UpdateHeaders", true, "1", false},
                                           Case{"UpdateFull", true, "2", false}, Case{"UpdateUnset", true, "", false},
                                           Case{"UpdateUnwritableDirectory", true, "1", true},
                                           Case{"NoflashRmaHeaders", false, "1", false},
                                           Case{"NoflashRmaFull", false, "2", false}),
                         [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace marlo::e2e
