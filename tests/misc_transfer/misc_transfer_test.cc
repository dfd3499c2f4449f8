// The misc-data transfer against a peer that answers every packet with a
// chosen status and MAX_PAYLOAD_SIZE: packet kinds, sizes, sequence numbers,
// the CRC, retries, the finish step and the reports.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dfu/le_words.h"
#include "dfu/recording_callback.h"
#include "fwupdater/marlo_fw_updater.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

using marlo::test::put_word;
using marlo::test::RecordingCallback;
using marlo::test::word_at;
using Status = marlo_fw_updater::Callback::Status;
using Bytes = std::vector<uint8_t>;

const std::string kBtfw = "/vendor/bt_firmware/image/mrbtfw20.mbn";
const std::string kNv = "/vendor/bt_firmware/image/mrnv20.bin";

std::string data_of(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('A' + i % 26);
  return s;
}

class MiscTransferTest : public ::testing::Test {
 protected:
  // Runs start, update and end against a peer that answers packet i with
  // statuses[i] (0 when absent); returns the packets the peer received.
  std::vector<Bytes> run(uint32_t max_payload, std::map<size_t, int32_t> statuses = {}) {
    std::vector<Bytes> packets;
    std::thread device([&] {
      int fd = node ? node->accept_open(5000) : -1;
      if (fd < 0) return;
      Bytes buf(1 << 20);
      long n;
      while ((n = marlo::sim::receive_packet(fd, buf.data(), buf.size(), 3000)) > 0) {
        packets.emplace_back(buf.begin(), buf.begin() + n);
        Bytes answer(buf.begin(), buf.begin() + 16);
        auto it = statuses.find(packets.size() - 1);
        put_word(answer, static_cast<uint32_t>(it == statuses.end() ? 0 : it->second));
        put_word(answer, max_payload);
        marlo::sim::send_packet(fd, answer.data(), answer.size());
      }
      ::close(fd);
    });
    updater.startMarloSHMUpdater(&cb);
    updater.marloMiscDataUpdateReq();
    updater.endMarloSHMUpdater();
    device.join();
    return packets;
  }

  static void expect_packet(const Bytes& p, uint32_t kind, uint32_t type, uint32_t size, uint32_t seq,
                            size_t length) {
    EXPECT_EQ(p.size(), length);
    EXPECT_EQ(word_at(p, 0), kind);
    EXPECT_EQ(word_at(p, 4), type);
    EXPECT_EQ(word_at(p, 8), size);
    EXPECT_EQ(word_at(p, 12), seq);
  }

  bool reported(const std::string& message, Status status) { return cb.count(message, status) > 0; }

  marlo::test::TestRoot root;
  std::unique_ptr<marlo::sim::DeviceNode> node =
      std::make_unique<marlo::sim::DeviceNode>(root.at("/dev/glink_pkt_marlo_custom_data"));
  RecordingCallback cb;
  marlo_fw_updater updater;
};

TEST_F(MiscTransferTest, SmallResourceGoesInOnePacketThenCrcAndFinish) {
  const std::string data = data_of(100);
  root.write(kBtfw, data);
  auto packets = run(4096);
  ASSERT_EQ(packets.size(), 4u);
  expect_packet(packets[0], 0, 0, 100, 0, 16);
  expect_packet(packets[1], 2, 0, 100, 1, 116);
  EXPECT_EQ(std::string(packets[1].begin() + 16, packets[1].end()), data);
  expect_packet(packets[2], 4, 0, 4, 0, 20);
  EXPECT_EQ(word_at(packets[2], 16), ::crc32(0L, reinterpret_cast<const Bytef*>(data.data()), 100));
  expect_packet(packets[3], 5, 0, 0, 0, 16);
  // A finish that sent its bytes returns their count: no success report.
  EXPECT_FALSE(reported("### Marlo Misc Data Resources Update finished. ###", Status::STATUS_SUCCESS));
  EXPECT_FALSE(reported("### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR));
  EXPECT_TRUE(reported("Finished transfer for type: 0 with response code: 0", Status::STATUS_INFO));
  EXPECT_TRUE(reported("Marlo Misc Data Resources Update Done", Status::STATUS_ERASE_DONE));
}

TEST_F(MiscTransferTest, SplitsAtThePayloadLimitWithALastPacketOneByteLonger) {
  struct Case {
    size_t total;
    std::vector<uint32_t> payloads;
  };
  for (const Case& c : {Case{100, {48, 48, 4}}, Case{97, {48, 49}}, Case{64, {48, 16}}}) {
    SCOPED_TRACE(c.total);
    const std::string data = data_of(c.total);
    root.write(kBtfw, data);
    auto packets = run(64);
    ASSERT_EQ(packets.size(), c.payloads.size() + 3);
    std::string joined;
    for (size_t i = 0; i < c.payloads.size(); ++i) {
      const bool last = i + 1 == c.payloads.size();
      expect_packet(packets[1 + i], last ? 2 : 1, 0, c.payloads[i], static_cast<uint32_t>(i + 1),
                    16 + c.payloads[i]);
      joined.append(packets[1 + i].begin() + 16, packets[1 + i].end());
    }
    EXPECT_EQ(joined, data);
  }
}

TEST_F(MiscTransferTest, EmptyResourceAndTheCheckValue) {
  root.write(kBtfw, "123456789");
  root.write(kNv, "");
  auto packets = run(4096);
  ASSERT_EQ(packets.size(), 7u);
  EXPECT_EQ(::crc32(0L, reinterpret_cast<const Bytef*>("123456789"), 9), 0xCBF43926u);
  EXPECT_EQ(word_at(packets[2], 16), 0xCBF43926u);
  expect_packet(packets[3], 0, 1, 0, 0, 16);
  expect_packet(packets[4], 2, 1, 0, 1, 16);
  expect_packet(packets[5], 4, 1, 4, 0, 20);
  EXPECT_EQ(word_at(packets[5], 16), 0u);
  expect_packet(packets[6], 5, 0, 0, 0, 16);
}

TEST_F(MiscTransferTest, RejectedStartIsRetriedFromTheStartPacket) {
  root.write(kBtfw, data_of(100));
  auto packets = run(4096, {{0, 7}});
  ASSERT_EQ(packets.size(), 5u);
  expect_packet(packets[0], 0, 0, 100, 0, 16);
  expect_packet(packets[1], 0, 0, 100, 0, 16);
  expect_packet(packets[2], 2, 0, 100, 1, 116);
  EXPECT_TRUE(reported("Sending Data buffer failed for type: 0", Status::STATUS_INFO));
  EXPECT_TRUE(reported("Finished transfer for type: 0 with response code: 7", Status::STATUS_INFO));
  EXPECT_TRUE(reported("Finished transfer for type: 0 with response code: 0", Status::STATUS_INFO));
}

TEST_F(MiscTransferTest, OnlyTheLastResourceDecidesBetweenFinishAndFailure) {
  root.write(kBtfw, data_of(10));
  root.write(kNv, data_of(10));
  // The first resource fails three times and is given up; the last succeeds.
  auto packets = run(4096, {{0, 1}, {1, 1}, {2, 1}});
  ASSERT_EQ(packets.size(), 7u);
  expect_packet(packets[6], 5, 0, 0, 0, 16);
  EXPECT_FALSE(reported("### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR));

  // The last resource fails three times: no finish packet, the failure report.
  packets = run(4096, {{3, 2}, {4, 2}, {5, 2}});
  ASSERT_EQ(packets.size(), 6u);
  EXPECT_EQ(word_at(packets[5], 0), 0u);
  EXPECT_TRUE(reported("### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR));
}

TEST_F(MiscTransferTest, LimitWithoutRoomForDataFailsInsteadOfLooping) {
  root.write(kBtfw, data_of(100));
  auto packets = run(16);
  ASSERT_EQ(packets.size(), 3u);  // three start packets, nothing else
  EXPECT_TRUE(reported("### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR));
}

TEST_F(MiscTransferTest, NoResourcesOrNoChannelEndInTheFailureReport) {
  run(4096);
  using Report = RecordingCallback::Report;
  EXPECT_EQ(cb.reports(), (std::vector<Report>{
                              {"Marlo SHM Updater:: Waiting for Glink channel open", Status::STATUS_STARTED},
                              {"### Starting Marlo Misc Data Resources Update. ###", Status::STATUS_STARTED},
                              {"### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR},
                              {"Marlo Misc Data Resources Update Done", Status::STATUS_ERASE_DONE},
                          }));

  node.reset();
  root.write(kNv, data_of(5));
  run(4096);
  EXPECT_TRUE(reported("Marlo SHM Updater:: Glink channel open failed", Status::STATUS_CHANNEL_ERROR));
  EXPECT_EQ(cb.count("Finished transfer for type: 1 with response code: 0", Status::STATUS_INFO), 3);
  EXPECT_EQ(cb.count("### Marlo Misc Data Resources Update Failed. ###", Status::STATUS_ERROR), 2);
}

}  // namespace
