// Sessions of the daemon against the virtual co-processor, captured by marlo-sim and decoded by tshark with
// tools/wireshark/marlo.lua: the decoded messages must read as the sessions they are, and a corrupted capture
// must be flagged exactly where it was corrupted.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
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

// Every request on the misc-data and RMA channels (a message that answers nothing) has exactly one answer.
void expect_requests_answered(const Decoded& d) {
  for (const auto& [iface, field] : {std::pair{kMiscIface, "marlo.misc.kind"}, {kRmaIface, "marlo.rma.cmd"}}) {
    for (const Frame* request : on(d, iface, field)) {
      if (request->num("marlo.response_to") >= 0) continue;
      EXPECT_EQ(on(d, iface, "marlo.response_to", request->get("frame.number")).size(), 1u)
          << "request in frame " << request->get("frame.number");
    }
  }
}

void expect_session(const Decoded& d, long worst) {
  expect_clean(d, worst);
  expect_fragments_in_order(d);
  expect_requests_answered(d);
}

// The sessions the replay tests keep as golden captures (the full update's first FLASH boot fails on purpose:
// that ioctl result is a warning).
TEST(Wire, GoldenSessionsDecodeAsTheSessionsTheyAre) {
  const struct {
    const char* name;
    bool dfu, misc, rma;  // whether messages of each channel are there
  } cases[] = {
      {"full_update", true, false, false}, {"resumed_update", true, false, false}, {"noflash_rma", false, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Decoded d = decode(golden(c.name), kFields);
    expect_session(d, kWarn);
    EXPECT_NE(on(d, kDfuIface, "marlo.dfu.cmd", "6").empty(), c.dfu);
    EXPECT_NE(on(d, kMiscIface, "marlo.misc.kind", "4").empty(), c.misc);
    EXPECT_NE(on(d, kRmaIface, "marlo.rma.cmd", "257").empty(), c.rma);
  }
}

// What a new user does first: the demo, its capture, and the capture read in tshark.
TEST(Wire, DemoUpdatesItsCoprocessorAndItsCaptureDecodesClean) {
  marlo::test::TestRoot scratch;
  const std::string capture = scratch.path() + "/demo.pcapng";
  // In a cross build the programs run under the emulator, which marlo-sim also puts before marlod.
  const char* emulator = std::getenv("MARLO_EMULATOR");
  const std::string command = std::string(emulator != nullptr ? emulator : "") + " " + MARLO_SIM + " demo --marlod " +
                              MARLO_MARLOD + " --capture " + capture + " 2>&1";
  FILE* demo = ::popen(command.c_str(), "r");
  ASSERT_NE(demo, nullptr);
  std::string out;
  std::array<char, 4096> buffer;
  for (size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), demo)) > 0;) out.append(buffer.data(), n);
  EXPECT_EQ(::pclose(demo), 0) << out;
  EXPECT_NE(out.find("RESULT: update verified"), std::string::npos) << out;
  const Decoded d = decode(capture, kFields);
  expect_session(d, kWarn - 1);
  EXPECT_FALSE(on(d, kDfuIface, "marlo.dfu.cmd", "6").empty());
}

TEST(Wire, CorruptedMessagesAreFlaggedWhereTheyAre) {
  // On the DFU channel: a fragment byte flipped, a length word that lies, an unknown command id, and a
  // request cut short of its header.
  marlo::test::TestRoot scratch;
  const std::string hostile = scratch.path() + "/hostile.pcapng";
  std::map<uint32_t, int> seen;  // DFU command -> how many so far
  ASSERT_TRUE(edit_capture(golden("full_update"), hostile, [&](uint32_t iface, std::vector<uint8_t>& p) {
    if (iface != kDfuIface || p.size() < 16) return;
    const int n = ++seen[p[0]];
    if (p[0] == 6 && n == 3) p[40] ^= 0x01;
    if (p[0] == 5 && n == 2) p[8] += 4;
    if (p[0] == 2 && n == 1) p[0] = 99;
    if (p[0] == 5 && n == 4) p.resize(10);
  }));
  const Decoded d = decode(hostile, kFields);
  ASSERT_EQ(d.error, "");
  std::vector<std::string> flagged;
  for (const Frame& f : d.frames) {
    EXPECT_FALSE(dissector_failed(f)) << "frame " << f.get("frame.number") << ": " << f.get("_ws.expert.message");
    std::string messages;
    for (const std::string& m : f.all("_ws.expert.message")) messages += m + "; ";
    for (const std::string& s : f.all("_ws.expert.severity")) {
      if (std::stol(s) > kWarn) {
        flagged.push_back(messages);
        break;
      }
    }
  }
  ASSERT_EQ(flagged.size(), 4u);
  EXPECT_NE(flagged[0].find("Unknown command"), std::string::npos) << flagged[0];
  EXPECT_NE(flagged[1].find("Length word says 32, packet holds 28"), std::string::npos) << flagged[1];
  EXPECT_NE(flagged[2].find("CRC"), std::string::npos) << flagged[2];
  EXPECT_NE(flagged[3].find("10 bytes, header is 16"), std::string::npos) << flagged[3];
  EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.crc.status", "0").size(), 3u)
      << "the fragment, the lying length, the unknown id";
}

}  // namespace
}  // namespace marlo::wire
