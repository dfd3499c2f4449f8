// The replay checks what marlod sends: a recording with one byte of a
// daemon message changed fails, naming the message and the field.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "sim/capture/pcapng_reader.h"
#include "sim/tools/replay.h"
#include "support/test_root.h"

namespace marlo::sim {
namespace {

std::string replay(const std::string& capture, int* status) {
  ReplayOptions options;
  options.capture = capture;
  options.marlod = std::string(MARLO_MARLOD);
  options.silence_timeout_ms = 3000;
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  *status = run_replay(options, out);
  std::fclose(out);
  std::string result(text, size);
  std::free(text);
  return result;
}

TEST(Replay, AChangedByteOfADaemonMessageFailsNamingItsField) {
  const std::string golden = std::string(MARLO_GOLDEN_DIR) + "/noflash_rma.pcapng";
  int status = -1;
  EXPECT_NE(replay(golden, &status).find("messages matched"), std::string::npos);
  EXPECT_EQ(status, 0);

  // The cmd word of the third control request the daemon sent.
  std::ifstream in(golden, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  CaptureFile capture;
  std::string error;
  ASSERT_TRUE(read_capture(golden, &capture, &error)) << error;
  int requests = 0;
  std::string request;
  for (const CapturedPacket& p : capture.packets) {
    if (p.interface == 0 && p.flags == 2 && !p.data.empty() && ++requests == 3) {
      request.assign(p.data.begin(), p.data.end());
      break;
    }
  }
  ASSERT_EQ(request.size(), 36u);
  size_t at = bytes.find(request);
  ASSERT_NE(at, std::string::npos);
  bytes[at + 24] ^= 0x40;
  marlo::test::TestRoot root;
  std::string changed = root.path() + "/changed.pcapng";
  std::ofstream(changed, std::ios::binary) << bytes;

  std::string report = replay(changed, &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(report.find("dev/marlo_com_dev frame"), std::string::npos) << report;
  EXPECT_NE(report.find("message 3 of its node: byte 24 (block cmd)"), std::string::npos) << report;
}

}  // namespace
}  // namespace marlo::sim
