// Sessions of the unmodified daemon against the virtual co-processor, captured by marlo-sim and decoded by
// tshark with tools/wireshark/marlo.lua: the decoded messages must read as the session the device saw, and
// a corrupted capture must be flagged exactly where it was corrupted.
#include <algorithm>
#include <set>

#include "e2e/e2e_fixture.h"
#include "tshark_run.h"

namespace marlo::e2e {
namespace {

using wire::Decoded;
using wire::Frame;

constexpr long kWarn = 0x600000;  // tshark's expert severity "warning"; errors are above it
constexpr int kDfuIface = 1, kMiscIface = 2, kRmaIface = 3;

const std::vector<std::string> kFields = {"frame.interface_id",
                                          "frame.p2p_dir",
                                          "marlo.event",
                                          "marlo.response_to",
                                          "marlo.ctl.name",
                                          "marlo.ctl.value",
                                          "marlo.ctl.apps_version",
                                          "marlo.dfu.cmd",
                                          "marlo.dfu.image_id",
                                          "marlo.dfu.offset",
                                          "marlo.dfu.fragment_len",
                                          "marlo.dfu.crc.status",
                                          "marlo.dfu.spcl.op",
                                          "marlo.dfu.state",
                                          "marlo.misc.kind",
                                          "marlo.misc.type",
                                          "marlo.misc.seq",
                                          "marlo.misc.status",
                                          "marlo.misc.checksum.status",
                                          "marlo.rma.cmd",
                                          "marlo.rma.crc.status",
                                          "marlo.uevent.marlo_event"};

class Wire : public E2e {
 protected:
  void start_captured_device(sim::DeviceOptions options) {
    capture_ = root_ + "/session.pcapng";
    options.capture_file = capture_;
    start_device(std::move(options));
  }
  // Ends the session (daemon, then device, which closes the capture) and decodes it.
  Decoded finish_and_decode() {
    stop_daemon();
    device_.reset();
    Decoded d = wire::decode(capture_, kFields);
    EXPECT_EQ(d.error, "");
    EXPECT_FALSE(d.frames.empty());
    return d;
  }
  std::string capture_;
};

std::vector<const Frame*> on(const Decoded& d, int iface, const std::string& field, const std::string& value) {
  std::vector<const Frame*> found;
  for (const Frame* f : d.where(field, value)) {
    if (f->num("frame.interface_id") == iface) found.push_back(f);
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
  return f.has("_ws.malformed.expert");
}

// No expert at `worst` or above (by default nothing above a note), no dissector failure, every CRC good.
void expect_clean(const Decoded& d, long worst = kWarn) {
  for (const Frame& f : d.frames) {
    for (const std::string& s : f.all("_ws.expert.severity")) {
      EXPECT_LT(std::stol(s), worst) << "frame " << f.get("frame.number") << ": " << f.get("_ws.expert.message");
    }
    EXPECT_FALSE(dissector_failed(f)) << "frame " << f.get("frame.number") << ": " << f.get("_ws.expert.message");
    for (const char* crc : {"marlo.dfu.crc.status", "marlo.rma.crc.status", "marlo.misc.checksum.status"}) {
      if (f.has(crc)) {
        EXPECT_EQ(f.get(crc), "1") << crc << " in frame " << f.get("frame.number");
      }
    }
  }
}

// Each IMG_OFFSET_RESP answers the IMG_OFFSET_REQ (or the state report) that asked for its offset; per image
// the offsets run from 0 in order, each after the previous fragment, up to the image's size.
void expect_fragments_in_order(const Decoded& d, const sim::FirmwareSet& images) {
  std::map<long, long> next;  // image id -> the offset that follows the last fragment
  for (const Frame* f : on(d, kDfuIface, "marlo.dfu.cmd", "6")) {
    long id = f->num("marlo.dfu.image_id"), offset = f->num("marlo.dfu.offset");
    EXPECT_LE(offset, next[id]) << "image " << id << ": a gap before offset " << offset;
    next[id] = std::max(next[id], offset + f->num("marlo.dfu.fragment_len"));
    const Frame* request = frame_no(d, f->num("marlo.response_to"));
    ASSERT_NE(request, nullptr) << "IMG_OFFSET_RESP in frame " << f->get("frame.number") << " answers nothing";
    if (request->get("marlo.dfu.cmd") == "5") {
      EXPECT_EQ(request->num("marlo.dfu.offset"), offset);
    }
  }
  for (uint32_t id : images.image_ids()) EXPECT_EQ(next[id], static_cast<long>(images.images.at(id).size()));
}

TEST_F(Wire, FullUpdateDecodesMessageByMessage) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  start_captured_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  sim::DfuStatus dfu = device_->dfu().status();
  Decoded d = finish_and_decode();
  expect_clean(d);
  EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.cmd", "6").size(), static_cast<size_t>(dfu.fragments));
  EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.cmd", "4").size(), shipped_.image_ids().size());
  EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.spcl.op", "0").size(), 2u * 2) << "two erases and their answers";
  for (const char* once : {"1", "11", "12"}) EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.cmd", once).size(), 1u) << once;
  expect_fragments_in_order(d, shipped_);
  // The control requests name the switch to HOST before the first DFU message and to FLASH after the session's
  // end. A daemon's packet is recorded when the co-processor reads it, so the end is the co-processor's
  // SESSION_END_REQ, which the switch follows: the daemon's SESSION_END_RESP may be read after the switch.
  long first_dfu = on(d, kDfuIface, "marlo.dfu.cmd", "13").front()->num("frame.number");
  long last_dfu = on(d, kDfuIface, "marlo.dfu.cmd", "11").back()->num("frame.number");
  std::vector<const Frame*> modes = d.where("marlo.ctl.name", "SET_BOOT_MODE");
  ASSERT_EQ(modes.size(), 2u);
  EXPECT_LT(modes[0]->num("frame.number"), first_dfu);
  EXPECT_EQ(modes[0]->num("marlo.ctl.value"), sim::kBootModeHost);
  EXPECT_GT(modes[1]->num("frame.number"), last_dfu);
  EXPECT_EQ(modes[1]->num("marlo.ctl.value"), sim::kBootModeFlash);
}

TEST_F(Wire, ResumedUpdateShowsTheDropAndTheAnswerToTheReportedState) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  sim::DeviceOptions options;
  options.dfu.fragment_size = 2048;
  start_captured_device(options);
  device_->drop_dfu_after(7);
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  Decoded d = finish_and_decode();
  expect_clean(d);
  // One drop and one reopen during the download (the device closes the channel once more when it stops).
  long end = on(d, kDfuIface, "marlo.dfu.cmd", "12").front()->num("frame.number");
  auto before_end = [&](const std::string& event) {
    std::vector<const Frame*> found = on(d, kDfuIface, "marlo.event", event);
    return std::count_if(found.begin(), found.end(), [&](const Frame* f) { return f->num("frame.number") < end; });
  };
  EXPECT_EQ(before_end("closed by co-processor"), 1);
  EXPECT_EQ(before_end("open"), 2);
  EXPECT_EQ(on(d, kDfuIface, "marlo.dfu.cmd", "1").size(), 1u) << "resumed, not restarted";
  // The second state report asks for a fragment; the daemon's next message answers it.
  std::vector<const Frame*> states = on(d, kDfuIface, "marlo.dfu.state", "2");
  ASSERT_EQ(states.size(), 1u);
  const Frame* next = frame_no(d, states[0]->num("frame.number") + 1);
  while (next != nullptr && next->num("frame.interface_id") != kDfuIface)
    next = frame_no(d, next->num("frame.number") + 1);
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->get("marlo.dfu.cmd"), "6");
  EXPECT_EQ(next->get("marlo.response_to"), states[0]->get("frame.number"));
  expect_fragments_in_order(d, shipped_);
}

TEST_F(Wire, FlashlessSessionDecodesMiscDataRmaTrafficAndARestart) {
  start_captured_device(noflash_options());
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 1; }));
  // A restart between RMA runs: power down and up as uevents, then misc data and RMA served again.
  device_->restart();
  ASSERT_TRUE(wait_for([&] { return device_->rma().status().runs_completed >= 2; }));
  int misc_packets = device_->misc().status().packets;
  Decoded d = finish_and_decode();
  expect_clean(d);
  std::vector<long> events;
  for (const Frame& f : d.frames) {
    if (f.has("marlo.uevent.marlo_event")) events.push_back(f.num("marlo.uevent.marlo_event"));
  }
  EXPECT_EQ(events, (std::vector<long>{1, 4}));
  // Misc data: per resource a start, data packets numbered from 1, a CRC; then one finish; every packet answered
  // with status 0.
  std::vector<const Frame*> sent, answers;
  for (const Frame& f : d.frames) {
    if (f.num("frame.interface_id") != kMiscIface || !f.has("marlo.misc.kind")) continue;
    (f.get("frame.p2p_dir") == "0" ? sent : answers).push_back(&f);
  }
  EXPECT_EQ(sent.size(), static_cast<size_t>(misc_packets));
  ASSERT_EQ(answers.size(), sent.size());
  std::string kinds;
  long seq = 0;
  for (size_t i = 0; i < sent.size(); ++i) {
    long kind = sent[i]->num("marlo.misc.kind");
    kinds += kind == 1 || kind == 2 ? (!kinds.empty() && kinds.back() == 'D' ? "" : "D") : std::to_string(kind);
    seq = kind == 0 ? 0 : seq;
    if (kind == 1 || kind == 2) {
      EXPECT_EQ(sent[i]->num("marlo.misc.seq"), ++seq);
    }
    EXPECT_EQ(answers[i]->get("marlo.response_to"), sent[i]->get("frame.number"));
    EXPECT_EQ(answers[i]->num("marlo.misc.status"), 0);
  }
  EXPECT_EQ(kinds, "0D40D450D40D45") << "two resources, then the finish; once per power-up";
  EXPECT_EQ(d.where("marlo.misc.checksum.status", "1").size(), 4u);
  // RMA: every request of the co-processor answered by the daemon's response to it.
  const std::map<std::string, std::string> answer_of = {{"0", "1"}, {"2", "3"}, {"256", "257"}, {"512", "513"}};
  std::set<std::string> seen;
  int requests = 0;
  for (const Frame& f : d.frames) {
    if (f.num("frame.interface_id") != kRmaIface || !f.has("marlo.rma.cmd")) continue;
    auto it = answer_of.find(f.get("marlo.rma.cmd"));
    if (it == answer_of.end()) continue;
    ++requests;
    seen.insert(it->first);
    const Frame* answer = nullptr;
    for (const Frame* a : on(d, kRmaIface, "marlo.rma.cmd", it->second)) {
      if (a->get("marlo.response_to") == f.get("frame.number")) answer = a;
    }
    EXPECT_NE(answer, nullptr) << "RMA request in frame " << f.get("frame.number") << " unanswered";
  }
  EXPECT_GT(requests, 3);
  for (const char* cmd : {"0", "256", "512"}) EXPECT_EQ(seen.count(cmd), 1u) << "no RMA request " << cmd;
  EXPECT_NE(d.where("marlo.ctl.name", "GET_VERSION").size(), 0u);
}

TEST_F(Wire, CorruptedMessagesAreFlaggedWhereTheyAre) {
  set_property("persist.vendor.zt_aon.dfu_update", "1");
  start_captured_device({});
  start_daemon();
  ASSERT_TRUE(wait_for([&] { return update_finished(); }));
  stop_daemon();
  device_.reset();
  // On the DFU channel: a fragment byte flipped, a length word that lies, an unknown command id, and a
  // request cut short of its header.
  std::map<uint32_t, int> seen;  // DFU command -> how many so far
  const std::string hostile = root_ + "/hostile.pcapng";
  ASSERT_TRUE(wire::edit_capture(capture_, hostile, [&](uint32_t iface, int, std::vector<uint8_t>& p) {
    if (iface != kDfuIface || p.size() < 16) return;
    int n = ++seen[p[0]];
    if (p[0] == 6 && n == 3) p[40] ^= 0x01;
    if (p[0] == 5 && n == 2) p[8] += 4;
    if (p[0] == 2 && n == 1) p[0] = 99;
    if (p[0] == 5 && n == 4) p.resize(10);
  }));
  Decoded d = wire::decode(hostile, kFields);
  ASSERT_EQ(d.error, "");
  std::vector<std::string> flagged;
  for (const Frame& f : d.frames) {
    EXPECT_FALSE(dissector_failed(f)) << "frame " << f.get("frame.number") << ": " << f.get("_ws.expert.message");
    bool error = false;
    for (const std::string& s : f.all("_ws.expert.severity")) {
      error |= std::stol(s) > kWarn;
    }
    if (!error) continue;
    std::string messages;
    for (const std::string& m : f.all("_ws.expert.message")) messages += m + "; ";
    flagged.push_back(messages);
  }
  ASSERT_EQ(flagged.size(), 4u);
  EXPECT_NE(flagged[0].find("Unknown command"), std::string::npos) << flagged[0];
  EXPECT_NE(flagged[1].find("Length word says 32, packet holds 28"), std::string::npos) << flagged[1];
  EXPECT_NE(flagged[2].find("CRC"), std::string::npos) << flagged[2];
  EXPECT_NE(flagged[3].find("10 bytes, header is 16"), std::string::npos) << flagged[3];
  EXPECT_EQ(d.where("marlo.dfu.crc.status", "0").size(), 3u) << "the fragment, the lying length, the unknown id";
}

// The sessions the replay tests keep as golden captures decode without an error as well (the full update's
// first FLASH boot fails on purpose: that ioctl result is a warning).
TEST(WireGolden, RecordedSessionsDecodeClean) {
  for (const char* name : {"full_update", "resumed_update", "noflash_rma"}) {
    SCOPED_TRACE(name);
    Decoded d = wire::decode(std::string(MARLO_GOLDEN_DIR) + "/" + name + ".pcapng", kFields);
    ASSERT_EQ(d.error, "");
    EXPECT_GT(
        on(d, kDfuIface, "marlo.dfu.crc.status", "1").size() + on(d, kRmaIface, "marlo.rma.crc.status", "1").size(),
        20u);
    expect_clean(d, kWarn + 1);
  }
}

}  // namespace
}  // namespace marlo::e2e
