// How the reader thread frames incoming packets, lying headers included.
#include <cerrno>

#include "glink_channel_fixture.h"
#include "platform/host_testing.h"

namespace marlo::test {
namespace {

using Framing = GlinkChannelTest;

class LengthFraming : public GlinkChannelTest {
 protected:
  // Sends a packet the first read completes, one with a zero length field
  // and one that takes several reads; checks what the callback receives.
  void check(const char* channel, uint32_t read_size, size_t offset, size_t threshold) {
    ASSERT_EQ(connect(channel, read_size), 0);
    Bytes too_short = framed(threshold - 1, offset, 1000);  // complete after the first read
    Bytes long_packet = framed(300, offset, 300);           // several reads of one packet
    Bytes zero_length = framed(threshold, offset, 0);       // nothing to deliver
    send(too_short);
    send(zero_length);
    send(long_packet);
    auto got = packets(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], padded(too_short, read_size));
    EXPECT_EQ(got[1], long_packet);
    EXPECT_TRUE(log_.contains("GLINK_int buffer len is 0"));
    EXPECT_EQ(log_.count("GLINK_int partial read bytes = "), 4);
  }
};

TEST_F(LengthFraming, DfuLengthIsAtOffsetEightFromSeventeenBytes) { check("glink_pkt_marlo_dfu", 44, 8, 17); }

TEST_F(LengthFraming, RmaLengthIsAtOffsetFourFromThirteenBytes) { check("glink_pkt_marlo_rma", 40, 4, 13); }

TEST_F(Framing, CustomDataDeliversTheWholeFirstReadBuffer) {
  ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44), 0);
  send(Bytes{1, 2, 3});
  EXPECT_EQ(packets(1), std::vector<Bytes>{padded({1, 2, 3}, 44)});
}

TEST_F(Framing, LyingLengthFieldsNeverReachPastWhatWasReceived) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  Bytes long_packet = framed(60, 8, 20);  // cut to 20; the rest is read as a packet
  Bytes head = framed(30, 8, 100);        // the next packet fills the rest, never more
  Bytes tail = framed(80, 8, 80);
  for (const Bytes& p : {long_packet, head, tail}) send(p);
  Bytes merged = head;
  merged.insert(merged.end(), tail.begin(), tail.begin() + 70);
  EXPECT_EQ(packets(4), (std::vector<Bytes>{Bytes(long_packet.begin(), long_packet.begin() + 20),
                                            padded(Bytes(long_packet.begin() + 44, long_packet.end()), 44), merged,
                                            padded(Bytes(tail.begin() + 70, tail.end()), 44)}));
  // Above 1 MiB: a failed read; the reader goes on.
  send(framed(40, 8, (1u << 20) + 1));
  EXPECT_EQ(errors(1), Errors{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("above the maximum packet size"));
  // Truncated by a hang-up: a failed read, then the hang-up.
  node_.reset();  // the reopen fails at once
  send(head);
  ::close(peer_);
  peer_ = -1;
  EXPECT_EQ(errors(3), (Errors{GLINK_IO_ERROR, GLINK_IO_ERROR, GLINK_SSR}));
  EXPECT_EQ(packets(0).size(), 4u);
}

TEST_F(Framing, EagainReadsAreRetriedTwiceAndFailAtTheThird) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  Bytes first = framed(20, 8, 20), second = framed(24, 8, 24);
  platform::host::inject_fault(channel_fd_, platform::host::FaultOp::Read, EAGAIN, 2);
  send(first);
  ASSERT_EQ(packets(1).size(), 1u);
  EXPECT_TRUE(errors(0).empty());
  platform::host::inject_fault(channel_fd_, platform::host::FaultOp::Read, EAGAIN, 3);
  send(second);
  EXPECT_EQ(errors(1), Errors{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("GLINK_int read has failed with errno = -11"));
  EXPECT_EQ(packets(2), (std::vector<Bytes>{first, second})) << "the packet waits for the next pass";
}

// A failed read counts twice (the read, the handler); the count passing 10
// logs the restart trigger and starts again at 0, and a pass that ends
// normally starts it again as well.
TEST_F(Framing, ErrorCountPassingTenTriggersOnceAndRestarts) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  size_t errors_so_far = 0, delivered = 0;
  for (int failures : {5, 6, 5}) {
    platform::host::inject_fault(channel_fd_, platform::host::FaultOp::Read, EIO, failures);
    send(framed(20, 8, 20));
    errors_so_far += static_cast<size_t>(failures);
    ASSERT_EQ(packets(++delivered).size(), delivered);  // the read after the failures
    EXPECT_EQ(errors(errors_so_far).size(), errors_so_far);
  }
  EXPECT_EQ(log_.count("GLINK_int triggred ssr g_glink_err_cnt = 12"), 1);
  EXPECT_EQ(log_.count("GLINK_int triggred ssr"), 1);
}

}  // namespace
}  // namespace marlo::test
