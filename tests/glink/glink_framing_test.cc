// How the reader thread frames incoming packets on each channel, including
// headers that lie about the packet's length.
#include <cerrno>

#include "glink_channel_fixture.h"
#include "platform/host_testing.h"

namespace marlo::test {
namespace {

using Framing = GlinkChannelTest;

TEST_F(Framing, DfuLengthAtOffsetEightIsUsedFromSeventeenBytes) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  Bytes short_packet = framed(16, 8, 1000);  // too short for its length field: complete
  Bytes long_packet = framed(300, 8, 300);   // read in several pieces
  send(short_packet);
  send(long_packet);
  auto got = packets(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], padded(short_packet, 44));
  EXPECT_EQ(got[1], long_packet);
  EXPECT_EQ(log_.count("GLINK_int partial read bytes = "), 3);
}

TEST_F(Framing, RmaLengthAtOffsetFourIsUsedFromThirteenBytes) {
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  Bytes header_only = framed(12, 4, 500);
  Bytes long_packet = framed(100, 4, 100);
  send(header_only);
  send(long_packet);
  auto got = packets(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], padded(header_only, 40));
  EXPECT_EQ(got[1], long_packet);
}

TEST_F(Framing, ZeroLengthFieldCompletesWithNothingToDeliver) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  send(framed(20, 8, 0));
  Bytes next = framed(24, 8, 24);
  send(next);
  auto got = packets(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], next);
  EXPECT_TRUE(log_.contains("GLINK_int buffer len is 0"));
}

TEST_F(Framing, CustomDataDeliversTheWholeFirstReadBuffer) {
  ASSERT_EQ(connect("glink_pkt_marlo_custom_data", 44), 0);
  send(Bytes{1, 2, 3});
  auto got = packets(1);
  ASSERT_EQ(got.size(), 1u);
  Bytes expected(44, 0);
  expected[0] = 1, expected[1] = 2, expected[2] = 3;
  EXPECT_EQ(got[0], expected);
}

TEST_F(Framing, LyingLengthFieldsNeverReachPastWhatWasReceived) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  // Shorter than the packet: cut to the length, the rest read as a packet.
  Bytes long_packet = framed(60, 8, 20);
  send(long_packet);
  // Longer than the packet: the next packet fills the rest, never more.
  Bytes head = framed(30, 8, 100);
  Bytes tail = framed(80, 8, 80);
  send(head);
  send(tail);
  auto got = packets(4);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0], Bytes(long_packet.begin(), long_packet.begin() + 20));
  EXPECT_EQ(got[1], padded(Bytes(long_packet.begin() + 44, long_packet.end()), 44));
  Bytes merged = head;
  merged.insert(merged.end(), tail.begin(), tail.begin() + 70);
  EXPECT_EQ(got[2], merged);
  EXPECT_EQ(got[3], padded(Bytes(tail.begin() + 70, tail.end()), 44));
}

TEST_F(Framing, LengthAboveOneMebibyteIsAFailedRead) {
  ASSERT_EQ(connect("glink_pkt_marlo_rma", 40), 0);
  send(framed(40, 4, (1u << 20) + 1));
  Bytes next = framed(16, 4, 16);
  send(next);
  auto got = packets(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], next);
  EXPECT_EQ(errors(1), std::vector<glink_interface_error>{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("above the maximum packet size"));
}

TEST_F(Framing, TruncatedPacketFailsWhenTheChannelCloses) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  node_.reset();  // the reopen after the hang-up fails at once
  send(framed(30, 8, 100));
  ::close(peer_);
  peer_ = -1;
  auto reported = errors(2);
  EXPECT_EQ(reported, (std::vector<glink_interface_error>{GLINK_IO_ERROR, GLINK_SSR}));
  EXPECT_TRUE(packets(0).empty());
}

TEST_F(Framing, EagainReadsAreRetriedTwiceAndFailAtTheThird) {
  ASSERT_EQ(connect("glink_pkt_marlo_dfu", 44), 0);
  platform::host::inject_fault(channel_fd_, platform::host::FaultOp::Read, EAGAIN, 2);
  Bytes first = framed(20, 8, 20);
  send(first);
  ASSERT_EQ(packets(1).size(), 1u);
  EXPECT_TRUE(errors(0).empty());
  platform::host::inject_fault(channel_fd_, platform::host::FaultOp::Read, EAGAIN, 3);
  Bytes second = framed(24, 8, 24);
  send(second);
  EXPECT_EQ(errors(1), std::vector<glink_interface_error>{GLINK_IO_ERROR});
  EXPECT_TRUE(log_.contains("GLINK_int read has failed with errno = -11"));
  auto got = packets(2);  // the packet waits for the next pass
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], first);
  EXPECT_EQ(got[1], second);
}

}  // namespace
}  // namespace marlo::test
