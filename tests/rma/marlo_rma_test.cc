// The RMA client serving a virtual co-processor on a real packet channel.
#include "rma/marlo_rma.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/le32.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "rma/rma_backing_store.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::test {
namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

class RmaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.mkdir("/data/vendor/aon");
    root_.mkdir("/dev");
    node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
    start_client();
  }
  void TearDown() override {
    rma_.reset();  // before the peer hangs up, or the reader would reopen the channel
    ::close(peer_);
  }

  // A request: header with zlib's CRC-32, then the words at offsets 12.., then `tail`.
  static Bytes request(uint32_t command, std::initializer_list<uint32_t> fields, const Bytes& tail = {}) {
    Bytes message(12);
    for (uint32_t value : fields) append_le32(message, value);
    message.insert(message.end(), tail.begin(), tail.end());
    put_le32(message.data() + 4, static_cast<uint32_t>(message.size()));
    put_le32(message.data() + 8, command);
    put_le32(message.data(),
             static_cast<uint32_t>(::crc32(0, message.data() + 4, static_cast<uInt>(message.size() - 4))));
    return message;
  }
  static Bytes connect_request(uint32_t memory_id, uint32_t second_id, uint32_t size, uint32_t priv) {
    return request(0, {0, memory_id, second_id, size, 0, 0, priv});
  }
  static Bytes data_request(uint32_t command, uint32_t word, uint32_t memory_id, uint32_t offset, uint32_t size,
                            const Bytes& block = {}) {
    return request(command, {word, memory_id, offset, size, 0}, block);
  }

  // The next answer (up to one whole packet), checked for its length field and CRC.
  Bytes receive() {
    Bytes answer;
    long n = sim::receive_message(peer_, answer, 5000);
    answer.resize(n < 12 ? 12 : static_cast<size_t>(n));
    EXPECT_EQ(le32_at(answer, 4), answer.size());
    EXPECT_EQ(le32_at(answer, 0), ::crc32(0, answer.data() + 4, static_cast<uInt>(answer.size() - 4)));
    return answer;
  }
  Bytes exchange(const Bytes& message) {
    EXPECT_TRUE(sim::send_packet(peer_, message.data(), message.size()));
    return receive();
  }
  // The client started, as on the co-processor's power-up, serving a new
  // connection; an old one then hangs up (a restart of the co-processor).
  void start_client() {
    int peer = -1;
    std::thread device([&] { peer = node_->accept_open(2000); });
    rma_->startMarloRmaConnection();
    device.join();
    ASSERT_GE(peer, 0);
    if (peer_ >= 0) ::close(peer_);
    peer_ = peer;
  }
  static std::vector<uint32_t> words(const Bytes& answer, size_t count) {
    std::vector<uint32_t> out;
    for (size_t i = 0; i < count; ++i) out.push_back(le32_at(answer, 12 + 4 * i));
    return out;
  }

  TestRoot root_;
  LogCapture log_;
  std::unique_ptr<sim::DeviceNode> node_;
  std::unique_ptr<marlo_rma> rma_ = std::make_unique<marlo_rma>();
  int peer_ = -1;
};

// Shorter than a header: dropped, and the next request is answered. (The
// transport pads runts to its first read, so this one is handed in directly.)
TEST_F(RmaTest, ConnectCreatesAZeroFilledPartition) {
  const uint8_t runt[3] = {0, 0, 0};
  rma_->rma_conn_res_event_cb(runt, sizeof(runt));
  Bytes answer = exchange(connect_request(7, 5, 8192, 99));
  EXPECT_EQ(le32_at(answer, 8), 1u);
  EXPECT_EQ(words(answer, 6), (std::vector<uint32_t>{99, 0, 7, 3, 4096, 4096}));
  EXPECT_EQ(root_.read("/data/vendor/aon/757").size(), 8192u);
  struct stat st;
  ASSERT_EQ(::stat(root_.at("/data/vendor/aon/757").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // Above the per-file cap: answered as usual, no file, its writes fail.
  exchange(connect_request(9, 9, static_cast<uint32_t>(rma::kMaxPartitionBytes + 1), 1));
  EXPECT_FALSE(root_.exists("/data/vendor/aon/999"));
  EXPECT_EQ(words(exchange(data_request(512, 9, 9, 0, 1, {'x'})), 5)[4], 1u);
}

// A DATA_WRITE is taken only when its block arrived whole and fits the
// partition; the answer echoes the request word, the private word, the
// memory id and the size, then the result (0 done, 1 failed).
TEST_F(RmaTest, WritesOfBlocksThatArrivedAndFitAreStored) {
  exchange(connect_request(7, 5, 4096, 99));
  const Bytes hello = {'h', 'e', 'l', 'l', 'o'};
  const struct {
    const char* what;
    Bytes message;
    std::vector<uint32_t> answer;
    size_t at;  // where the file then holds "hello", or npos
  } cases[] = {
      {"a block inside the partition", data_request(512, 7, 7, 100, 5, hello), {7, 99, 7, 5, 0}, 100},
      {"a block past the end", data_request(512, 7, 7, 4094, 5, hello), {7, 99, 7, 5, 1}, std::string::npos},
      {"a size beyond the bytes that arrived",
       data_request(512, 7, 7, 0, 1000, hello),
       {7, 99, 7, 1000, 1},
       std::string::npos},
      {"a message too short for its fields", request(512, {7, 7}), {7, 99, 7, 0, 1}, std::string::npos},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::resize_file(root_.at("/data/vendor/aon/757"), 0);
    std::filesystem::resize_file(root_.at("/data/vendor/aon/757"), 4096);
    const Bytes answer = exchange(c.message);
    EXPECT_EQ(le32_at(answer, 8), 513u);
    EXPECT_EQ(words(answer, 5), c.answer);
    const std::string file = root_.read("/data/vendor/aon/757");
    EXPECT_EQ(file.size(), 4096u) << "a write never grows the partition";
    EXPECT_EQ(file.find("hello"), c.at);
  }
}

// A read of a block that the file holds whole, and that fits one packet
// with its header and five words, is answered with its bytes; any other read
// with the echoed words, result 1 and no data.
TEST_F(RmaTest, ReadsOfWholeBlocksAreServedAndOthersFail) {
  constexpr uint32_t kPacket = 1u << 20;
  std::string content(kPacket, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i % 251 + 1);
  root_.write("/data/vendor/aon/757", content);
  exchange(connect_request(7, 5, kPacket, 99));
  const struct {
    uint32_t offset, size;
    bool served;
  } cases[] = {
      {0, 256, true},
      {250, 6, true},
      {0, 0, true},
      {kPacket, 0, true},
      {0, kPacket - 32, true},
      {0, kPacket - 31, false},
      {kPacket - 4, 10, false},
      {kPacket + 16, 16, false},
      {0, 0xFFFFFFFFu, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.size << " bytes at " << c.offset);
    const Bytes answer = exchange(data_request(256, 4, 7, c.offset, c.size));
    EXPECT_EQ(le32_at(answer, 8), 257u);
    EXPECT_EQ(words(answer, 5), (std::vector<uint32_t>{4, 99, 7, c.size, c.served ? 0u : 1u}));
    const Bytes expected = c.served ? Bytes(content.begin() + c.offset, content.begin() + c.offset + c.size) : Bytes{};
    EXPECT_TRUE(Bytes(answer.begin() + 32, answer.end()) == expected) << "the block, or no data";
  }
  EXPECT_EQ(log_.count("failed: result 1, no data"), 4);
  EXPECT_TRUE(log_.contains("does not fit one packet"));

  // The backing file changed under the daemon: cut short, then removed.
  std::filesystem::resize_file(root_.at("/data/vendor/aon/757"), 100);
  const Bytes cut_short = exchange(data_request(256, 4, 7, 64, 64));
  EXPECT_EQ(cut_short.size(), 32u);
  EXPECT_EQ(words(cut_short, 5), (std::vector<uint32_t>{4, 99, 7, 64, 1}));
  EXPECT_TRUE(log_.contains("fewer than the 64 asked"));
  std::filesystem::remove(root_.at("/data/vendor/aon/757"));
  const Bytes removed = exchange(data_request(256, 4, 7, 64, 64));
  EXPECT_EQ(removed.size(), 32u);
  EXPECT_EQ(words(removed, 5), (std::vector<uint32_t>{4, 99, 7, 64, 1}));
  EXPECT_TRUE(log_.contains("File open failed : /data/vendor/aon/757"));
}

// A backing file's name is three numbers with no separator: memory id 1
// with second id 111 and memory id 11 with second id 1 both name "11111".
// The pair that made or claimed a name first keeps it for the daemon's run,
// across restarts of the co-processor.
TEST_F(RmaTest, ANameClaimedByAnotherPartitionIsRefusedForTheWholeRun) {
  const std::string shared = "/data/vendor/aon/11111";
  const Bytes owned(64, 'A');
  exchange(connect_request(1, 111, 64, 5));
  ASSERT_EQ(words(exchange(data_request(512, 1, 1, 0, 64, owned)), 5)[4], 0u);

  auto other_pair_is_refused = [&] {
    EXPECT_EQ(words(exchange(connect_request(11, 1, 64, 6)), 6), (std::vector<uint32_t>{6, 0, 11, 3, 4096, 4096}));
    EXPECT_EQ(words(exchange(data_request(512, 11, 11, 0, 64, Bytes(64, 'B'))), 5)[4], 1u);
    Bytes answer = exchange(data_request(256, 11, 11, 0, 64));
    EXPECT_EQ(answer.size(), 32u);
    EXPECT_EQ(words(answer, 5), (std::vector<uint32_t>{11, 6, 11, 64, 1}));
    EXPECT_EQ(root_.read(shared), std::string(owned.begin(), owned.end()));
  };
  auto owner_is_served = [&] {
    exchange(connect_request(1, 111, 64, 5));
    Bytes answer = exchange(data_request(256, 1, 1, 0, 64));
    EXPECT_EQ(words(answer, 5)[4], 0u);
    EXPECT_EQ(Bytes(answer.begin() + 32, answer.end()), owned);
  };
  other_pair_is_refused();
  EXPECT_TRUE(log_.contains("/data/vendor/aon/11111 is claimed by memory id 1, second id 111"));
  owner_is_served();
  // Another partition whose DATA_WRITE request word makes the owner's name.
  exchange(connect_request(1, 11, 64, 7));
  EXPECT_EQ(words(exchange(data_request(512, 11, 1, 0, 64, Bytes(64, 'C'))), 5)[4], 1u);
  EXPECT_EQ(root_.read(shared), std::string(owned.begin(), owned.end()));

  start_client();
  other_pair_is_refused();
  owner_is_served();
}

// What the client's transports saw: how many were destroyed, one
// destroyed inside its own connect, and a hold on the first data callback at
// its start. (A transport destroyed on its own reader aborts by itself.)
struct Watch {
  std::atomic<int> destroyed{0};
  std::atomic<bool> connecting{false};
  std::atomic<bool> destroyed_while_connecting{false};
  std::atomic<bool> hold{false};
  std::atomic<bool> was_held{false};
  std::promise<void> held;
  std::promise<void> released;
  std::shared_future<void> release = released.get_future().share();
};

// A real channel transport that reports to a watch.
class WatchedTransport : public marlo_glink {
 public:
  WatchedTransport(const glink_conn_config& config, Watch* watch) : marlo_glink(config), watch_(watch) {}
  ~WatchedTransport() override {
    if (watch_->connecting) watch_->destroyed_while_connecting = true;
    ++watch_->destroyed;
  }

  // The callbacks may outlive this part of the object until the reader is
  // joined: they hold the watch, never `this`.
  int register_cb(glink_data_cb data_cb, glink_error_cb error_cb) override {
    return marlo_glink::register_cb(
        [watch = watch_, data_cb](uint8_t* data, uint32_t length) {
          if (watch->hold && !watch->was_held.exchange(true)) {
            watch->held.set_value();
            watch->release.wait();
          }
          data_cb(data, length);
        },
        std::move(error_cb));
  }
  int connect_interface(bool start_reader) override {
    Watch* const watch = watch_;
    watch->connecting = true;
    const int result = marlo_glink::connect_interface(start_reader);
    watch->connecting = false;
    return result;
  }

 private:
  Watch* const watch_;
};

// Who destroys the client's transport, and when: always its owner, on the
// owner's thread, once the transport's connect and callbacks have returned.
class RmaTransportLifetime : public RmaTest {
 protected:
  RmaTransportLifetime() {
    rma_ = std::make_unique<marlo_rma>(
        [this](const glink_conn_config& config) { return std::make_unique<WatchedTransport>(config, &watch_); });
  }
  void TearDown() override {
    RmaTest::TearDown();
    EXPECT_FALSE(watch_.destroyed_while_connecting) << "a transport was destroyed inside its own connect";
  }

  Watch watch_;
};

// No device node: the three opens fail and the failure is reported from
// inside the connect. The client drops the transport once the connect has
// returned; later answers find none.
TEST_F(RmaTransportLifetime, OpenFailureReportedInsideTheConnectIsActedOnAfterIt) {
  node_.reset();
  rma_->startMarloRmaConnection();
  EXPECT_EQ(log_.count("GLINK_int about to open glink channel on dev node = /dev/glink_pkt_marlo_rma"), 1 + 3);
  EXPECT_EQ(watch_.destroyed, 2);
  EXPECT_EQ(rma_->send_aon_request(1, nullptr, 0), 0) << "no transport";
  node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
  start_client();
  EXPECT_EQ(le32_at(exchange(connect_request(1, 2, 4096, 0)), 8), 1u) << "a later start opens the channel anew";
}

// The owner restarts the client while the old transport's reader handles a
// request. The old transport goes once the callback has returned; the answer
// it sends after the transport was taken out is dropped.
TEST_F(RmaTransportLifetime, RestartWhileACallbackRunsDestroysTheOldTransportOnceItHasReturned) {
  watch_.hold = true;
  const Bytes request = connect_request(1, 2, 4096, 0);
  ASSERT_TRUE(sim::send_packet(peer_, request.data(), request.size()));
  ASSERT_EQ(watch_.held.get_future().wait_for(5s), std::future_status::ready);
  auto restarted = std::async(std::launch::async, [this] { start_client(); });
  EXPECT_TRUE(wait_until([&] { return log_.contains(" destructor"); }, 5s));
  EXPECT_EQ(restarted.wait_for(20ms), std::future_status::timeout) << "the restart waits for the callback";
  watch_.released.set_value();
  restarted.get();
  EXPECT_EQ(watch_.destroyed, 1);
  EXPECT_EQ(le32_at(exchange(request), 8), 1u) << "the new transport serves";
  EXPECT_EQ(log_.count("glinkInterface != nullptr"), 1) << "the old reader's answer";
}

}  // namespace
}  // namespace marlo::test
