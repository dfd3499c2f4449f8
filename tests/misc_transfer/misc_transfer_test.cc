// The misc-data transfer against a peer that answers every packet with a
// chosen status and MAX_PAYLOAD_SIZE: retries, the finish step and the
// reports. The packets themselves are checked by the virtual co-processor's
// receiver in every end-to-end push.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "common/le32.h"
#include "dfu/updater_test_support.h"
#include "platform/host_testing.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace {

using namespace marlo;
using namespace marlo::test;
using Status = marlo_fw_updater::Callback::Status;
using Bytes = std::vector<uint8_t>;

const std::string kBtfw = "/vendor/bt_firmware/image/mrbtfw20.mbn";  // type 0, sent first
const std::string kNv = "/vendor/bt_firmware/image/mrnv20.bin";      // type 1
const std::string kFailed = "### Marlo Misc Data Resources Update Failed. ###";

// The header words kind, type, size, sequence.
std::vector<uint32_t> header(const Bytes& p) { return {le32_at(p, 0), le32_at(p, 4), le32_at(p, 8), le32_at(p, 12)}; }

class MiscTransferTest : public ::testing::Test {
 protected:
  // Start, update and end against a peer that answers packet i with
  // statuses[i] (0 when absent); the packets the peer received.
  std::vector<Bytes> run(uint32_t max_payload, std::map<size_t, int32_t> statuses = {}) {
    std::vector<Bytes> packets;
    std::thread device([&] {
      int fd = node ? node->accept_open(5000) : -1;
      Bytes buf(1 << 20);
      long n;
      while (fd >= 0 && (n = marlo::sim::receive_packet(fd, buf.data(), buf.size(), 3000)) > 0) {
        packets.emplace_back(buf.begin(), buf.begin() + n);
        Bytes answer(buf.begin(), buf.begin() + 16);
        append_le32(answer, static_cast<uint32_t>(statuses[packets.size() - 1]));
        append_le32(answer, max_payload);
        // The daemon's end is open once its first packet came: its reads fail now.
        for (int own = 0; packets.size() == 1 && own < 256 && failed_reads > 0; ++own) {
          platform::host::inject_fault(own, platform::host::FaultOp::Read, EIO, failed_reads);
        }
        marlo::sim::send_packet(fd, answer.data(), answer.size());
      }
      if (fd >= 0) ::close(fd);
    });
    updater.startMarloSHMUpdater(&cb);
    updater.marloMiscDataUpdateReq();
    updater.endMarloSHMUpdater();
    device.join();
    return packets;
  }

  TestRoot root;
  std::unique_ptr<marlo::sim::DeviceNode> node =
      std::make_unique<marlo::sim::DeviceNode>(root.at("/dev/glink_pkt_marlo_custom_data"));
  RecordingCallback cb;
  marlo_fw_updater updater;
  int failed_reads = 0;  // reads of the first answer that fail
};

// A start answered with an error, then one whose answer cannot be read: each
// fails the step, and the start packet is sent again.
TEST_F(MiscTransferTest, RejectedOrUnreadableStartIsRetriedFromTheStartPacket) {
  root.write(kBtfw, std::string(10, 'x'));
  LogCapture log;
  for (int unreadable = 0; unreadable < 2; ++unreadable) {
    SCOPED_TRACE(unreadable);
    failed_reads = unreadable;
    auto packets = run(4096, {{0, unreadable != 0 ? 0 : 7}});
    ASSERT_EQ(packets.size(), 5u);
    EXPECT_EQ(header(packets[1]), header(packets[0]));
    EXPECT_EQ(cb.count("Sending Data buffer failed for type: 0", Status::STATUS_INFO), 1 + unreadable);
  }
  EXPECT_EQ(cb.count("Finished transfer for type: 0 with response code: 7", Status::STATUS_INFO), 1);
  // No answer was read for the unreadable attempt: it reports code 0 as a success does.
  EXPECT_EQ(cb.count("Finished transfer for type: 0 with response code: 0", Status::STATUS_INFO), 3);
  EXPECT_EQ(log.count("read_response: Read error"), 1);
}

TEST_F(MiscTransferTest, OnlyTheLastResourceDecidesBetweenFinishAndFailure) {
  root.write(kBtfw, std::string(10, 'x'));
  root.write(kNv, std::string(10, 'x'));
  auto packets = run(4096, {{0, 1}, {1, 1}, {2, 1}});  // the first resource is given up after 3 tries
  ASSERT_EQ(packets.size(), 7u);
  EXPECT_EQ(le32_at(packets[6], 0), 5u);
  EXPECT_EQ(cb.count(kFailed, Status::STATUS_ERROR), 0);

  packets = run(4096, {{3, 2}, {4, 2}, {5, 2}});  // the last one is
  ASSERT_EQ(packets.size(), 6u);
  EXPECT_EQ(le32_at(packets[5], 0), 0u);
  EXPECT_EQ(cb.count(kFailed, Status::STATUS_ERROR), 1);
}

TEST_F(MiscTransferTest, NoRoomForDataNoResourcesOrNoChannelEndInFailure) {
  root.write(kBtfw, std::string(100, 'x'));
  EXPECT_EQ(run(16).size(), 3u);  // three start packets, and no endless empty packets
  EXPECT_EQ(cb.count(kFailed, Status::STATUS_ERROR), 1);

  // A file above the size cap is not loaded: with the other one missing, there is nothing to send.
  std::filesystem::resize_file(root.at(kBtfw), uintmax_t{3} << 30);  // sparse
  EXPECT_TRUE(run(4096).empty());
  EXPECT_EQ(cb.count(kFailed, Status::STATUS_ERROR), 2);

  node.reset();
  root.write(kNv, std::string(5, 'x'));
  run(4096);
  EXPECT_EQ(cb.count("Marlo SHM Updater:: Glink channel open failed", Status::STATUS_CHANNEL_ERROR), 1);
  EXPECT_EQ(cb.count(kFailed, Status::STATUS_ERROR), 3);
}

}  // namespace
