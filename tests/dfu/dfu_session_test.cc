// The DFU download session driven through a real transport: the test plays
// the co-processor on the channel's socket and checks every answer's bytes,
// with the CRC recomputed by zlib.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "common/le32.h"
#include "dfu/updater_test_support.h"
#include "platform/host_testing.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace {

using namespace marlo;
using namespace marlo::test;
using Status = marlo_fw_updater::Callback::Status;
using Bytes = std::vector<uint8_t>;

uint32_t zlib_crc(const Bytes& b) { return static_cast<uint32_t>(::crc32(0L, b.data(), static_cast<uInt>(b.size()))); }

Bytes words(const std::vector<uint32_t>& values) {
  Bytes b;
  for (uint32_t v : values) append_le32(b, v);
  return b;
}

// A message framed as the co-processor frames it, cut to `length` if given.
Bytes dfu_message(uint32_t id, const Bytes& payload, size_t length = 0) {
  Bytes m = words({id, 0x0A0B0C0Du, static_cast<uint32_t>(16 + payload.size()), 0});
  m.insert(m.end(), payload.begin(), payload.end());
  if (length != 0) m.resize(length);
  const uint32_t crc = zlib_crc(m);
  put_le32(&m[12], crc);
  return m;
}

std::string partition(int offset, int id, const std::string& name, int size) {
  return "<Partition><Offset>" + std::to_string(offset) + "</Offset><img_id>" + std::to_string(id) +
         "</img_id><Partition_Name>" + name + "</Partition_Name><Image_Path>" + name + ".bin</Image_Path><size>" +
         std::to_string(size) + "</size><HostSpecificInfo><PartType>1</PartType></HostSpecificInfo></Partition>";
}

class DfuSessionTest : public ::testing::Test {
 protected:
  const std::string dir = "/vendor/firmware_mnt/image/";

  void SetUp() override {
    for (size_t i = 0; i < boot.size(); ++i) boot[i] = static_cast<uint8_t>(i * 7 + 3);
    root.write(dir + "boot.bin", std::string(boot.begin(), boot.end()));
    root.write(dir + "cfg.bin", std::string(100, 'c'));
    root.write(dir + "flash.bin", std::string(2048, 'f'));
    // Erasable partitions in table order: boot, cfg (size 0: never erased), data.
    root.write(dir + "partition_table.xml", "<t><Bank_1><Partition_table>" + partition(4096, 3, "boot", 16384) +
                                                partition(32768, 4, "cfg", 0) + partition(131072, 5, "data", 8192) +
                                                "</Partition_table></Bank_1></t>");
  }
  void TearDown() override {
    updater.reset();
    if (peer >= 0) ::close(peer);
  }
  void start(marlo_fw_updater::Callback* callback = nullptr) {
    std::thread device([&] { peer = node.accept_open(5000); });
    updater->startMarloDownloaderWithCallback(callback != nullptr ? callback : &cb);
    device.join();
    ASSERT_GE(peer, 0);
  }
  void send(uint32_t id, const std::vector<uint32_t>& payload, size_t length = 0) {
    Bytes m = dfu_message(id, words(payload), length);
    ASSERT_TRUE(marlo::sim::send_packet(peer, m.data(), m.size()));
  }
  // The payload of the next message from the daemon, its framing and CRC checked.
  Bytes receive(uint32_t id, size_t expected_size = 28) {
    Bytes m(1 << 20);
    long n = marlo::sim::receive_packet(peer, m.data(), m.size(), 3000);
    m.resize(n < 16 ? 16 : static_cast<size_t>(n));
    EXPECT_EQ(le32_at(m, 0), id);
    EXPECT_EQ(m.size(), expected_size);
    EXPECT_EQ(le32_at(m, 4), 0x0A0B0C0Du);
    EXPECT_EQ(le32_at(m, 8), m.size());
    Bytes zeroed = m;
    put_le32(&zeroed[12], 0);
    EXPECT_EQ(le32_at(m, 12), zlib_crc(zeroed));
    return Bytes(m.begin() + 16, m.end());
  }
  // The co-processor restarts: the channel drops and the transport reopens it.
  void restart_channel() {
    ::close(peer);
    peer = node.accept_open(5000);
    ASSERT_GE(peer, 0);
  }
  bool silent() {
    uint8_t b[64];
    return marlo::sim::receive_packet(peer, b, sizeof(b), 100) < 0;
  }
  // True when an open of the channel is waiting for its status: the
  // transport is inside an open attempt.
  bool open_attempt_waiting() {
    struct pollfd listening = {node.listen_fd(), POLLIN, 0};
    return ::poll(&listening, 1, 3000) == 1;
  }
  // Answers the next open attempt as a channel whose remote end is down.
  void refuse_next_open() {
    ASSERT_TRUE(open_attempt_waiting());
    const int fd = ::accept4(node.listen_fd(), nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(fd, 0);
    const int32_t status = ENODEV;
    EXPECT_TRUE(marlo::sim::send_packet(fd, &status, sizeof(status)));
    ::close(fd);
  }
  // The fragment data of the answer to IMG_OFFSET_REQ(id, offset, len).
  Bytes fragment(uint32_t id, uint32_t offset, uint32_t len, size_t expected_size) {
    send(5, {id, offset, len});
    Bytes p = receive(6, expected_size);
    EXPECT_EQ(Bytes(p.begin(), p.begin() + 12), words({id, offset, len}));
    return Bytes(p.begin() + 12, p.end());
  }
  Bytes boot_bytes(size_t from, size_t to) { return Bytes(boot.begin() + from, boot.begin() + to); }

  TestRoot root;
  Bytes boot = Bytes(10000);
  marlo::sim::DeviceNode node{root.at("/dev/glink_pkt_marlo_dfu")};
  RecordingCallback cb;
  std::unique_ptr<marlo_fw_updater> updater = std::make_unique<marlo_fw_updater>();
  int peer = -1;
};

TEST_F(DfuSessionTest, CompleteSession) {
  start();
  updater->eraseAllRAWPartitionAndContinueDownload();
  EXPECT_EQ(receive(13), words({0, 4096, 16384}));
  EXPECT_TRUE(silent()) << "the next erase waits for the answer";
  send(14, {0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(receive(13), words({0, 131072, 8192}));
  send(14, {0, 1, 0, 0, 0, 0, 0});  // a failed erase is only reported
  EXPECT_EQ(receive(13), words({1, 0, 0}));
  EXPECT_EQ(cb.count("### Marlo Flash Erase Failed. ###", Status::STATUS_INFO), 1);

  send(14, {1, 0, 0, INIT, 0, 0, 0});
  Bytes start_payload = words({1, 0, 0});
  for (char c : std::string("IMG UPDT")) start_payload.push_back(static_cast<uint8_t>(c));
  EXPECT_EQ(receive(1, 36), start_payload);
  EXPECT_TRUE(cb.wait_for("### Starting Marlo Firmware Update. ###", Status::STATUS_STARTED));
  EXPECT_EQ(root.property("persist.vendor.zt_aon.dfu_update"), "0");

  send(3, {3});
  EXPECT_EQ(receive(4), words({3, 10000, 0}));
  Bytes tail = boot_bytes(9900, 10000);
  tail.resize(70000, 0);  // past the image's end: zeros; the answers after it carry only their own bytes
  EXPECT_EQ(fragment(3, 9900, 70000, 70028), tail);
  EXPECT_EQ(fragment(3, 0, 4096, 4124), boot_bytes(0, 4096));
  EXPECT_TRUE(cb.wait_for("Image ID: 3 flash write 99% Completed...", Status::STATUS_INFO));

  send(11, {});
  EXPECT_EQ(receive(12), Bytes(12, 0));
  EXPECT_TRUE(cb.wait_for("### Marlo Firmware Update finished. ###", Status::STATUS_SUCCESS));
  EXPECT_EQ(root.property("persist.vendor.zt_aon.dfu_update"), "1");
}

// Loading the flash image reads the platform facts from sysfs; the test
// serves that file as a device node and holds the read, so the set-up stops
// in the middle of loading the images while the co-processor sends requests.
TEST_F(DfuSessionTest, RequestsDuringTheSetUpAreServedFromCompleteImages) {
  root.mkdir("/sys/devices/soc0");
  marlo::sim::DeviceNode hw_platform{root.at("/sys/devices/soc0/hw_platform")};
  std::thread setup([&] { updater->startMarloDownloaderWithCallback(&cb); });
  ::close(hw_platform.accept_open(5000));  // the images load before the channel opens
  peer = node.accept_open(5000);
  setup.join();
  ASSERT_GE(peer, 0);

  // Set up again on the kept transport: until the new images are complete,
  // the co-processor is served the previous ones, never a partial list.
  std::thread again([&] { updater->startMarloDownloaderWithCallback(&cb); });
  const int held = hw_platform.accept_open(5000);
  EXPECT_GE(held, 0);
  send(3, {1});
  EXPECT_EQ(receive(4), words({1, 2048, 0}));
  EXPECT_EQ(fragment(3, 100, 16, 44), boot_bytes(100, 116));
  ::close(held);
  again.join();
  send(3, {3});
  EXPECT_EQ(receive(4), words({3, 10000, 0}));
}

TEST_F(DfuSessionTest, EdgeRequestsAndShortMessagesAreAnsweredWithWhatTheyCanName) {
  start();
  struct Exchange {
    uint32_t id;
    std::vector<uint32_t> payload;
    size_t length;  // the message cut to this many bytes, or whole (0)
    uint32_t answer_id;
    std::vector<uint32_t> answer;  // its payload (a fragment's: the echoed words, no data)
  };
  const Exchange exchanges[] = {
      {3, {7}, 0, 4, {7, 0, 0}},                            // no image has id 7
      {5, {3, 10000, 4096}, 0, 6, {3, 10000, 4096}},        // offset at the image's end
      {5, {3, 0, 0}, 0, 6, {3, 0, 0}},                      // nothing asked
      {5, {3, 0, 0xFFFFFFF0u}, 0, 6, {3, 0, 0xFFFFFFF0u}},  // more than a packet can carry
      {3, {4}, 20, 4, {4, 100, 0}},                         // just the image id
      {3, {4}, 16, 4, {0, 0, 0}},                           // header only: the id reads as 0
  };
  for (const Exchange& e : exchanges) {
    SCOPED_TRACE(::testing::Message() << "message " << e.id << " of " << e.length << " bytes");
    send(e.id, e.payload, e.length);
    EXPECT_EQ(receive(e.answer_id, 16 + 4 * e.answer.size()), words(e.answer));
  }
  // Neither a special operation other than erase or state, nor an unknown command, is answered.
  send(14, {2, 1, 0, OFFSET_REQ, 3, 0, 16});
  send(13, {});
  EXPECT_TRUE(cb.wait_for("Received INVALID CMD RESP", Status::STATUS_ERROR));
  EXPECT_TRUE(silent());
}

TEST_F(DfuSessionTest, DroppedChannelResumesFromReportedStateUntilSessionEnds) {
  start();
  restart_channel();
  EXPECT_EQ(receive(13), words({1, 0, 0}));
  send(14, {1, 0, 0, OFFSET_REQ, 3, 1024, 512});
  Bytes answer = receive(6, 540);
  EXPECT_EQ(Bytes(answer.begin() + 12, answer.end()), boot_bytes(1024, 1536));
  EXPECT_TRUE(cb.wait_for("Current Marlo DFU state = OFFSET_REQ  Image ID: 3 offset: 1024 fragment_len: 512",
                          Status::STATUS_INFO));

  // A resume whose query cannot be sent raises an I/O error inside the
  // resume: it is not resumed again from there.
  for (int fd = 0; fd < 256; ++fd) platform::host::inject_fault(fd, platform::host::FaultOp::Write, EIO, 5);
  updater->conn_error_cb(GLINK_IO_ERROR);
  EXPECT_EQ(cb.count("### Getting Marlo DFU State. ###", Status::STATUS_STARTED), 2);
  for (int fd = 0; fd < 256; ++fd) platform::host::inject_fault(fd, platform::host::FaultOp::Write, EIO, 0);
  EXPECT_TRUE(silent());

  restart_channel();
  receive(13);
  send(14, {1, 0, 0, SESSION_END_REQ, 0, 0, 0});
  receive(12);
  EXPECT_TRUE(cb.wait_for("### Marlo Firmware Update finished. ###", Status::STATUS_SUCCESS));
}

// The power-up arrives while the transport's last reopen attempt is still
// waiting: whichever of the two resumes, the session is resumed once.
TEST_F(DfuSessionTest, PowerUpDuringTheTransportsLastReopenAttemptResumesOnce) {
  start();
  updater->getCurrentDFUStateAndContinueDownload();
  receive(13);
  ::close(peer);
  peer = -1;
  refuse_next_open();
  refuse_next_open();
  ASSERT_TRUE(open_attempt_waiting());  // the third attempt holds the transport
  std::thread power_up([&] { updater->resumeDownloadOnPowerUp(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let it wait on the transport
  refuse_next_open();
  peer = node.accept_open(5000);
  power_up.join();
  ASSERT_GE(peer, 0);
  EXPECT_EQ(receive(13), words({1, 0, 0}));
  EXPECT_TRUE(silent()) << "resumed once";
}

// A failed open reported while the set-up's connect runs, from another
// thread than the connect's: it is noted, not handled there, and the session
// ends once, after connect has returned.
TEST_F(DfuSessionTest, OpenFailureReportedDuringTheConnectEndsTheSessionOnceAfterIt) {
  std::thread setup([&] { updater->startMarloDownloaderWithCallback(&cb); });
  ASSERT_TRUE(open_attempt_waiting());  // the connect waits inside its first open
  std::atomic<bool> handled{false};
  std::thread reporter([&] {
    updater->conn_error_cb(GLINK_OPEN_FAILED);
    handled = true;
  });
  EXPECT_TRUE(wait_until([&] { return handled.load(); }, std::chrono::seconds(2))) << "waited for the connect";
  for (int attempt = 0; attempt < 3; ++attempt) refuse_next_open();
  setup.join();
  reporter.join();
  EXPECT_EQ(cb.count("Marlo dfu channel open failed", Status::STATUS_CHANNEL_ERROR), 2);
  EXPECT_EQ(cb.count("MarloDownloader END", Status::STATUS_ENDED), 1);
}

// The reader thread is answering a request when the updater is destroyed:
// the reader is held inside the request's first report until the
// destruction has begun to stop the transport, and its answer must still
// go out through the transport it was sent on.
TEST_F(DfuSessionTest, AnswerInProgressWhileTheUpdaterIsDestroyedStillGoesOut) {
  struct HoldingCallback : RecordingCallback {
    void handleDFUResponse(std::string message, Status) override {
      if (message.rfind("Received MG_UPDT_RESP", 0) == 0) {
        entered = true;
        stopping_seen = wait_until([&] { return log.contains("glink_disconnect"); }, std::chrono::seconds(5));
      }
    }
    LogCapture log;
    std::atomic<bool> entered{false};
    std::atomic<bool> stopping_seen{false};
  } holding;
  start(&holding);
  send(3, {3});
  ASSERT_TRUE(wait_until([&] { return holding.entered.load(); }, std::chrono::seconds(5)));
  updater.reset();
  EXPECT_TRUE(holding.stopping_seen);
  EXPECT_EQ(receive(4), words({3, 10000, 0}));
  EXPECT_FALSE(holding.log.contains("glinkInterface != nullptr"));
}

TEST(DfuMessageDeathTest, MessageLongerThanTheReceiveBufferAborts) {
  Bytes message = dfu_message(2, {}, 45);
  EXPECT_DEATH(marlo_fw_updater().conn_res_event_cb(message.data(), 45), "more than 44");
}

}  // namespace
