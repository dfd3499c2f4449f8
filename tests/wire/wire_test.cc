// Sessions of the daemon against the virtual co-processor, captured by marlo-sim and decoded by tshark with
// tools/wireshark/marlo.lua: the decoded messages must read as the sessions they are.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "support/test_root.h"
#include "tshark_run.h"

namespace marlo::wire {
namespace {

constexpr long kWarn = 0x600000;  // tshark's expert severity "warning"; errors are above it
constexpr int kDfuIface = 1, kMiscIface = 2, kRmaIface = 3;

const std::vector<std::string> kFields = {
    "marlo.response_to",          "marlo.dfu.cmd",        "marlo.dfu.image_id",   "marlo.dfu.offset",
    "marlo.dfu.fragment_len",     "marlo.dfu.image_size", "marlo.dfu.crc.status", "marlo.misc.kind",
    "marlo.misc.checksum.status", "marlo.rma.cmd",        "marlo.rma.crc.status"};

std::string golden(const std::string& name) { return std::string(MARLO_GOLDEN_DIR) + "/" + name + ".pcapng"; }

// The frames on `iface` whose `field` is `value` (has any value when `value` is empty).
std::vector<const Frame*> on(const Decoded& d, int iface, const std::string& field, const std::string& value = "") {
  std::vector<const Frame*> found;
  for (const Frame& f : d.frames) {
    const std::string got = f.get(field);
    if (f.num("frame.interface_id") == iface && !got.empty() && (value.empty() || got == value)) found.push_back(&f);
  }
  return found;
}

const Frame* frame_no(const Decoded& d, long number) {
  return number >= 1 && number <= static_cast<long>(d.frames.size()) ? &d.frames[number - 1] : nullptr;
}

// A Lua error or an exception in the dissector, rather than a decoded fault.
bool dissector_failed(const Frame& f) {
  for (const std::string& m : f.all("_ws.expert.message")) {
    if (m.rfind("Lua Error", 0) == 0) return true;
  }
  return !f.get("_ws.malformed.expert").empty();
}

// No expert above `worst`, no dissector failure, every CRC good, every answer paired with an earlier request
// on its own node.
void expect_clean(const Decoded& d, long worst) {
  ASSERT_EQ(d.error, "");
  ASSERT_FALSE(d.frames.empty());
  for (const Frame& f : d.frames) {
    SCOPED_TRACE("frame " + f.get("frame.number") + ": " + f.get("_ws.expert.message"));
    for (const std::string& s : f.all("_ws.expert.severity")) EXPECT_LE(std::stol(s), worst);
    EXPECT_FALSE(dissector_failed(f));
    for (const char* crc : {"marlo.dfu.crc.status", "marlo.rma.crc.status", "marlo.misc.checksum.status"}) {
      EXPECT_TRUE(f.get(crc).empty() || f.get(crc) == "1") << crc;
    }
    if (f.num("marlo.response_to") >= 0) {
      const Frame* request = frame_no(d, f.num("marlo.response_to"));
      ASSERT_NE(request, nullptr);
      EXPECT_LT(request->num("frame.number"), f.num("frame.number"));
      EXPECT_EQ(request->num("frame.interface_id"), f.num("frame.interface_id"));
    }
  }
}

// Each IMG_OFFSET_RESP answers the IMG_OFFSET_REQ (or the state report) that asked for its offset; per image
// the offsets run from 0 in order, each after the previous fragment, up to the size its IMG_INFO_RESP gave.
void expect_fragments_in_order(const Decoded& d) {
  std::map<long, long> next;  // image id -> the offset that follows the last fragment
  for (const Frame* f : on(d, kDfuIface, "marlo.dfu.cmd", "6")) {
    const long id = f->num("marlo.dfu.image_id"), offset = f->num("marlo.dfu.offset");
    EXPECT_LE(offset, next[id]) << "image " << id << ": a gap before offset " << offset;
    next[id] = std::max(next[id], offset + f->num("marlo.dfu.fragment_len"));
    const Frame* request = frame_no(d, f->num("marlo.response_to"));
    ASSERT_NE(request, nullptr) << "IMG_OFFSET_RESP in frame " << f->get("frame.number") << " answers nothing";
    if (request->get("marlo.dfu.cmd") == "5") {
      EXPECT_EQ(request->num("marlo.dfu.offset"), offset);
    }
  }
  for (const Frame* info : on(d, kDfuIface, "marlo.dfu.cmd", "4")) {
    EXPECT_EQ(next[info->num("marlo.dfu.image_id")], info->num("marlo.dfu.image_size"));
  }
}

// The sessions the replay tests keep as golden captures (the full update's first FLASH boot fails on purpose:
// that ioctl result is a warning), and what a new user does first: the demo, its capture, read in tshark.
TEST(Wire, SessionsDecodeAsTheSessionsTheyAre) {
  marlo::test::TestRoot scratch;
  const std::string demo_capture = scratch.path() + "/demo.pcapng";
  // In a cross build the programs run under the emulator, which marlo-sim also puts before marlod.
  const char* emulator = std::getenv("MARLO_EMULATOR");
  const std::string command = std::string(emulator != nullptr ? emulator : "") + " " + MARLO_SIM + " demo --marlod " +
                              MARLO_MARLOD + " --capture " + demo_capture + " 2>&1";
  FILE* demo = ::popen(command.c_str(), "r");
  ASSERT_NE(demo, nullptr);
  std::string out;
  std::array<char, 4096> buffer;
  for (size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), demo)) > 0;) out.append(buffer.data(), n);
  EXPECT_EQ(::pclose(demo), 0) << out;
  EXPECT_NE(out.find("RESULT: update verified"), std::string::npos) << out;

  const struct {
    std::string capture;
    long worst;
    bool dfu, misc, rma;  // whether messages of each channel are there
  } cases[] = {
      {golden("full_update"), kWarn, true, false, false},
      {golden("resumed_update"), kWarn, true, false, false},
      {golden("noflash_rma"), kWarn, false, true, true},
      {demo_capture, kWarn - 1, true, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.capture);
    const Decoded d = decode(c.capture, kFields);
    expect_clean(d, c.worst);
    expect_fragments_in_order(d);
    EXPECT_NE(on(d, kDfuIface, "marlo.dfu.cmd", "6").empty(), c.dfu);
    EXPECT_NE(on(d, kMiscIface, "marlo.misc.kind", "4").empty(), c.misc);
    EXPECT_NE(on(d, kRmaIface, "marlo.rma.cmd", "257").empty(), c.rma);
  }
}

}  // namespace
}  // namespace marlo::wire
