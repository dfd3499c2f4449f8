// The RMA client serving a virtual co-processor on a real packet channel.
#include "rma/marlo_rma.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "daemon/marlo_deamon_log.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {
namespace {

using Bytes = std::vector<uint8_t>;

uint32_t word_at(const Bytes& b, size_t offset) {
  uint32_t value = 0;
  if (b.size() >= offset + 4) std::memcpy(&value, b.data() + offset, 4);
  return value;
}

class RmaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.mkdir("/data/vendor/aon");
    root_.mkdir("/dev");
    node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    rma_->startMarloRmaConnection();
    device.join();
    ASSERT_GE(peer_, 0);
  }
  void TearDown() override {
    rma_.reset();  // before the peer hangs up, or the reader would reopen the channel
    ::close(peer_);
  }

  // A request: header with zlib's CRC-32, then the words at offsets 12.., then `tail`.
  static Bytes request(uint32_t command, std::initializer_list<uint32_t> fields, const Bytes& tail = {}) {
    Bytes message(12 + fields.size() * 4);
    size_t at = 12;
    for (uint32_t value : fields) std::memcpy(message.data() + (at += 4) - 4, &value, 4);
    message.insert(message.end(), tail.begin(), tail.end());
    uint32_t length = static_cast<uint32_t>(message.size());
    std::memcpy(message.data() + 4, &length, 4);
    std::memcpy(message.data() + 8, &command, 4);
    uint32_t crc = static_cast<uint32_t>(::crc32(0, message.data() + 4, static_cast<uInt>(message.size() - 4)));
    std::memcpy(message.data(), &crc, 4);
    return message;
  }
  static Bytes connect_request(uint32_t memory_id, uint32_t second_id, uint32_t size, uint32_t priv) {
    return request(0, {0, memory_id, second_id, size, 0, 0, priv});
  }
  static Bytes data_request(uint32_t command, uint32_t word, uint32_t memory_id, uint32_t offset, uint32_t size,
                            const Bytes& block = {}) {
    return request(command, {word, memory_id, offset, size, 0}, block);
  }

  // The next answer, checked for its length field and CRC.
  Bytes receive() {
    Bytes answer(1 << 16);
    long n = sim::receive_packet(peer_, answer.data(), answer.size(), 5000);
    answer.resize(n < 12 ? 12 : static_cast<size_t>(n));
    EXPECT_EQ(word_at(answer, 4), answer.size());
    EXPECT_EQ(word_at(answer, 0), ::crc32(0, answer.data() + 4, static_cast<uInt>(answer.size() - 4)));
    return answer;
  }
  Bytes exchange(const Bytes& message) {
    EXPECT_TRUE(sim::send_packet(peer_, message.data(), message.size()));
    return receive();
  }
  static std::vector<uint32_t> words(const Bytes& answer, size_t count) {
    std::vector<uint32_t> out;
    for (size_t i = 0; i < count; ++i) out.push_back(word_at(answer, 12 + 4 * i));
    return out;
  }

  TestRoot root_;
  LogCapture log_;
  std::unique_ptr<sim::DeviceNode> node_;
  std::unique_ptr<marlo_rma> rma_ = std::make_unique<marlo_rma>();
  int peer_ = -1;
};

TEST_F(RmaTest, ConnectCreatesAZeroFilledPartitionOnceAndKeepsAnExistingOne) {
  Bytes answer = exchange(connect_request(7, 5, 8192, 99));
  EXPECT_EQ(word_at(answer, 8), 1u);
  EXPECT_EQ(words(answer, 6), (std::vector<uint32_t>{99, 0, 7, 3, 4096, 4096}));
  EXPECT_EQ(root_.read("/data/vendor/aon/757"), std::string(8192, '\0'));
  struct stat st;
  ASSERT_EQ(::stat(root_.at("/data/vendor/aon/757").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  root_.write("/data/vendor/aon/111", "keep");
  exchange(connect_request(1, 1, 4096, 1));
  EXPECT_EQ(root_.read("/data/vendor/aon/111"), "keep");
  EXPECT_TRUE(log_.contains("file exists /data/vendor/aon/111"));
}

TEST_F(RmaTest, WrittenBlocksReadBackAndNeverGrowThePartition) {
  exchange(connect_request(7, 5, 4096, 99));
  Bytes block = {'h', 'e', 'l', 'l', 'o'};
  Bytes answer = exchange(data_request(512, 7, 7, 100, 5, block));
  EXPECT_EQ(word_at(answer, 8), 513u);
  EXPECT_EQ(words(answer, 5), (std::vector<uint32_t>{7, 99, 7, 5, 0}));
  EXPECT_EQ(root_.read("/data/vendor/aon/757").substr(100, 5), "hello");

  answer = exchange(data_request(256, 42, 7, 99, 7));
  EXPECT_EQ(word_at(answer, 8), 257u);
  EXPECT_EQ(words(answer, 5), (std::vector<uint32_t>{42, 99, 7, 7, 0}));
  EXPECT_EQ(Bytes(answer.begin() + 32, answer.end()), (Bytes{0, 'h', 'e', 'l', 'l', 'o', 0}));

  answer = exchange(data_request(512, 7, 7, 4094, 5, block));
  EXPECT_EQ(words(answer, 5)[4], 1u) << "a block past the end is refused";
  EXPECT_EQ(root_.read("/data/vendor/aon/757").size(), 4096u);
}

TEST_F(RmaTest, HostileSizesNeitherOverReadNorOverAllocate) {
  exchange(connect_request(7, 5, 4096, 99));
  // A block size beyond the bytes that arrived.
  Bytes answer = exchange(data_request(512, 7, 7, 0, 1000, Bytes(8, 0xAA)));
  EXPECT_EQ(words(answer, 5)[4], 1u);
  EXPECT_EQ(root_.read("/data/vendor/aon/757"), std::string(4096, '\0'));
  // A message too short for its fields: missing fields read as 0, no block.
  answer = exchange(request(512, {7, 7}));
  EXPECT_EQ(words(answer, 5), (std::vector<uint32_t>{7, 99, 7, 0, 1}));
  // A read of 4 GiB gets at most the partition.
  answer = exchange(data_request(256, 1, 7, 0, 0xFFFFFFFFu));
  EXPECT_EQ(answer.size(), 32u + 4096u);
  // Shorter than a header (the transport pads runts to its first read, so
  // it is handed in directly): dropped; the next request is answered.
  const uint8_t runt[3] = {2, 0, 0};
  rma_->rma_conn_res_event_cb(runt, sizeof(runt));
  EXPECT_EQ(word_at(exchange(request(2, {0, 7})), 8), 3u);
}

TEST_F(RmaTest, DisconnectAnswersStoredIdsAndUnknownCommandsGoUnanswered) {
  exchange(connect_request(7, 5, 16, 99));
  Bytes unknown = request(77, {1, 2, 3});
  ASSERT_TRUE(sim::send_packet(peer_, unknown.data(), unknown.size()));
  Bytes answer = exchange(request(2, {0, 8}));
  EXPECT_EQ(word_at(answer, 8), 3u) << "the first answer is the DISCONNECT's";
  EXPECT_EQ(words(answer, 4), (std::vector<uint32_t>{7, 99, 8, 0}));
  EXPECT_TRUE(log_.contains("GLINK_int invalid cmd id"));
  // A header-only message: 12 bytes, its CRC over bytes 4 to 11 (checked by receive()).
  ASSERT_EQ(rma_->send_aon_request(3, nullptr, 0), 12);
  EXPECT_EQ(receive().size(), 12u);
  EXPECT_EQ(marlo_rma().send_aon_request(3, nullptr, 0), 0) << "no transport";
}

}  // namespace
}  // namespace marlo::test
