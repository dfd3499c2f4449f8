// The DFU download session driven through a real transport: the test plays
// the co-processor on the channel's socket and checks every answer's bytes,
// with the CRC recomputed by zlib.
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dfu/le_words.h"
#include "dfu/recording_callback.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/host_testing.h"
#include "sim/device_node.h"
#include "support/test_root.h"

namespace {

using marlo::test::put_word;
using marlo::test::RecordingCallback;
using marlo::test::word_at;
using Status = marlo_fw_updater::Callback::Status;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMagic = 0x0A0B0C0D;

uint32_t zlib_crc(const Bytes& b) { return static_cast<uint32_t>(::crc32(0L, b.data(), static_cast<uInt>(b.size()))); }

// A message as the co-processor frames it; `length` overrides the real size.
Bytes dfu_message(uint32_t id, const std::vector<uint32_t>& words, size_t length = 0) {
  Bytes m;
  put_word(m, id);
  put_word(m, kMagic);
  put_word(m, static_cast<uint32_t>(16 + 4 * words.size()));
  put_word(m, 0);
  for (uint32_t w : words) put_word(m, w);
  if (length != 0) m.resize(length);
  const uint32_t crc = zlib_crc(m);
  if (m.size() >= 16) std::memcpy(&m[12], &crc, 4);
  return m;
}

Bytes pattern(size_t n, unsigned seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 7 + seed);
  return b;
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
    boot = pattern(10000, 3);
    root.write(dir + "boot.bin", std::string(boot.begin(), boot.end()));
    root.write(dir + "cfg.bin", std::string(100, 'c'));
    root.write(dir + "data.bin", std::string(5000, 'd'));
    root.write(dir + "flash.bin", std::string(2048, 'f'));
    root.write(dir + "partition_1.bin", std::string(512, 'p'));
    write_table("");
    node = std::make_unique<marlo::sim::DeviceNode>(root.at("/dev/glink_pkt_marlo_dfu"));
  }
  void TearDown() override {
    updater.reset();
    if (peer >= 0) ::close(peer);
  }

  // Erasable partitions: boot (4096, 16384), cfg (size 0: never erased), data.
  void write_table(const std::string& extra) {
    root.write(dir + "partition_table.xml",
               "<table><Bank_1><Partition_table>" + partition(4096, 3, "boot", 16384) +
                   partition(32768, 4, "cfg", 0) + partition(131072, 5, "data", 8192) + extra +
                   "</Partition_table></Bank_1></table>");
  }

  void start() {
    std::thread device([&] { peer = node->accept_open(5000); });
    updater->startMarloDownloaderWithCallback(&cb);
    device.join();
    ASSERT_GE(peer, 0);
  }

  // The channel drops (co-processor restart) and the transport reopens it.
  void restart_channel() {
    ::close(peer);
    peer = node->accept_open(5000);
    ASSERT_GE(peer, 0);
  }

  void send(uint32_t id, const std::vector<uint32_t>& words, size_t length = 0) {
    Bytes m = dfu_message(id, words, length);
    ASSERT_TRUE(marlo::sim::send_packet(peer, m.data(), m.size()));
  }

  // The next message from the daemon, with its framing checked.
  Bytes receive(uint32_t expected_id) {
    Bytes m(1 << 20);
    long n = marlo::sim::receive_packet(peer, m.data(), m.size(), 3000);
    EXPECT_GE(n, 16) << "no message with id " << expected_id;
    m.resize(n < 0 ? 0 : static_cast<size_t>(n));
    if (m.size() < 16) return m;
    EXPECT_EQ(word_at(m, 0), expected_id);
    EXPECT_EQ(word_at(m, 4), kMagic);
    EXPECT_EQ(word_at(m, 8), m.size());
    Bytes zeroed = m;
    std::memset(&zeroed[12], 0, 4);
    EXPECT_EQ(word_at(m, 12), zlib_crc(zeroed));
    return m;
  }

  bool silent(int ms = 100) {
    uint8_t b[64];
    return marlo::sim::receive_packet(peer, b, sizeof(b), ms) < 0;
  }

  Bytes expect_fragment(uint32_t id, uint32_t offset, uint32_t len, size_t expected_size) {
    send(5, {id, offset, len});
    Bytes m = receive(6);
    EXPECT_EQ(m.size(), expected_size);
    EXPECT_EQ(word_at(m, 16), id);
    EXPECT_EQ(word_at(m, 20), offset);
    EXPECT_EQ(word_at(m, 24), len);
    return m;
  }

  marlo::test::TestRoot root;
  Bytes boot;
  std::unique_ptr<marlo::sim::DeviceNode> node;
  RecordingCallback cb;
  std::unique_ptr<marlo_fw_updater> updater = std::make_unique<marlo_fw_updater>();
  int peer = -1;
};

TEST_F(DfuSessionTest, CompleteSessionErasesQueriesAndServesImages) {
  start();
  updater->eraseAllRAWPartitionAndContinueDownload();

  Bytes erase = receive(13);
  EXPECT_EQ(erase.size(), 28u);
  EXPECT_EQ(word_at(erase, 16), 0u);
  EXPECT_EQ(word_at(erase, 20), 4096u);
  EXPECT_EQ(word_at(erase, 24), 16384u);
  EXPECT_TRUE(silent()) << "the next erase must wait for the answer";
  send(14, {0, 0, 0, 0, 0, 0, 0});
  erase = receive(13);
  EXPECT_EQ(word_at(erase, 20), 131072u);
  EXPECT_EQ(word_at(erase, 24), 8192u);
  send(14, {0, 1, 0, 0, 0, 0, 0});  // a failed erase is reported, the chain goes on
  Bytes query = receive(13);
  EXPECT_EQ(Bytes(query.begin() + 16, query.end()), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(cb.count("### Marlo Flash Erase Failed. ###", Status::STATUS_INFO), 1);
  EXPECT_EQ(cb.count("Erase Requested for partition: boot", Status::STATUS_STARTED), 1);
  EXPECT_EQ(cb.count("Going for erase from offset: 131072 to Length: 8192...", Status::STATUS_INFO), 1);

  send(14, {1, 0, 0, 0 /* INIT */, 0, 0, 0});
  Bytes start_req = receive(1);
  const Bytes expected_start = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'I', 'M', 'G', ' ', 'U', 'P', 'D', 'T'};
  EXPECT_EQ(Bytes(start_req.begin() + 16, start_req.end()), expected_start);
  EXPECT_TRUE(cb.wait_for("### Starting Marlo Firmware Update. ###", Status::STATUS_STARTED));
  EXPECT_EQ(root.property("persist.vendor.zt_aon.dfu_update"), "0");

  send(3, {3});
  Bytes info = receive(4);
  EXPECT_EQ(info.size(), 28u);
  EXPECT_EQ(word_at(info, 16), 3u);
  EXPECT_EQ(word_at(info, 20), 10000u);
  EXPECT_EQ(word_at(info, 24), 0u);

  Bytes first = expect_fragment(3, 0, 4096, 4124);
  EXPECT_EQ(Bytes(first.begin() + 28, first.end()), Bytes(boot.begin(), boot.begin() + 4096));
  Bytes last = expect_fragment(3, 9900, 4096, 4124);  // runs 3996 bytes past the end
  EXPECT_EQ(Bytes(last.begin() + 28, last.begin() + 128), Bytes(boot.begin() + 9900, boot.end()));
  EXPECT_EQ(Bytes(last.begin() + 128, last.end()), Bytes(3996, 0));
  EXPECT_TRUE(cb.wait_for("Image ID: 3 flash write 99% Completed...", Status::STATUS_INFO));

  send(11, {});
  Bytes end = receive(12);
  EXPECT_EQ(Bytes(end.begin() + 16, end.end()), Bytes(12, 0));
  EXPECT_TRUE(cb.wait_for("### Marlo Firmware Update finished. ###", Status::STATUS_SUCCESS));
  EXPECT_EQ(root.property("persist.vendor.zt_aon.dfu_update"), "1");
  EXPECT_TRUE(updater->firmwareResources().empty());

  // After the session has ended, a dropped channel resumes nothing.
  restart_channel();
  EXPECT_TRUE(silent());
}

TEST_F(DfuSessionTest, EdgeRequestsAndShortOrInvalidMessages) {
  start();
  send(3, {7});  // no image has id 7
  Bytes info = receive(4);
  EXPECT_EQ(word_at(info, 16), 7u);
  EXPECT_EQ(word_at(info, 20), 0u);
  EXPECT_TRUE(cb.wait_for("Updating Image ID: 7 size:0", Status::STATUS_INFO));

  expect_fragment(3, 10000, 4096, 28);  // offset at the image's end
  expect_fragment(3, 0, 0, 28);         // zero fragment length
  expect_fragment(9, 0, 64, 28);        // unknown image
  EXPECT_TRUE(cb.wait_for("Image ID: 3 flash write 0% Completed...", Status::STATUS_INFO));
  expect_fragment(3, 0, 0xFFFFFFF0u, 28);  // more than one packet can carry: no data, no huge allocation

  send(3, {4}, 20);  // just the image id word
  EXPECT_EQ(word_at(receive(4), 20), 100u);
  send(3, {4}, 16);  // header only: the image id reads as 0
  info = receive(4);
  EXPECT_EQ(word_at(info, 16), 0u);
  EXPECT_EQ(word_at(info, 20), 0u);

  send(13, {});
  EXPECT_TRUE(cb.wait_for("Received INVALID CMD RESP", Status::STATUS_ERROR));
  send(7, {});
  EXPECT_TRUE(cb.wait_for("Received CANCEL_UPDT_REQ", Status::STATUS_ENDED));
  EXPECT_TRUE(silent());
}

TEST_F(DfuSessionTest, ProgressPercentageWrapsIn32Bits) {
  root.write(dir + "big.bin", "");
  std::filesystem::resize_file(root.at(dir + "big.bin"), 50000000);
  write_table(partition(1 << 20, 6, "big", 0));
  start();
  expect_fragment(6, 45000000, 16, 44);
  EXPECT_TRUE(cb.wait_for("Image ID: 6 flash write 4% Completed...", Status::STATUS_INFO));
}

TEST_F(DfuSessionTest, DroppedChannelResumesFromReportedState) {
  start();
  updater->eraseAllRAWPartitionAndContinueDownload();
  receive(13);

  restart_channel();
  receive(13);  // the state query after the reopen
  send(14, {1, 0, 0, 1 /* INFO_REQ */, 3, 0, 0});
  EXPECT_EQ(word_at(receive(4), 20), 10000u);
  EXPECT_TRUE(cb.wait_for("Current Marlo DFU state = INFO_REQ  Image ID: 3", Status::STATUS_INFO));

  restart_channel();
  receive(13);
  send(14, {1, 0, 0, 2 /* OFFSET_REQ */, 3, 1024, 512});
  Bytes fragment = receive(6);
  EXPECT_EQ(Bytes(fragment.begin() + 28, fragment.end()), Bytes(boot.begin() + 1024, boot.begin() + 1536));
  EXPECT_TRUE(cb.wait_for("Current Marlo DFU state = OFFSET_REQ  Image ID: 3 offset: 1024 fragment_len: 512",
                          Status::STATUS_INFO));

  restart_channel();
  receive(13);
  send(14, {1, 0, 0, 3 /* SESSION_END_REQ */, 0, 0, 0});
  receive(12);
  EXPECT_TRUE(cb.wait_for("### Marlo Firmware Update finished. ###", Status::STATUS_SUCCESS));
  restart_channel();
  EXPECT_TRUE(silent());
}

TEST_F(DfuSessionTest, ResumeWhoseSendFailsDoesNotRecurse) {
  start();
  for (int fd = 0; fd < 1024; ++fd) platform::host::inject_fault(fd, platform::host::FaultOp::Write, EIO, 5);
  updater->conn_error_cb(GLINK_SSR);
  // The failed query raised GLINK_IO_ERROR inside the resume: not resumed again.
  EXPECT_EQ(cb.count("### Getting Marlo DFU State. ###", Status::STATUS_STARTED), 1);
  EXPECT_TRUE(silent());
  for (int fd = 0; fd < 1024; ++fd) platform::host::inject_fault(fd, platform::host::FaultOp::Write, EIO, 0);
  updater->conn_error_cb(GLINK_IO_ERROR);  // a later error resumes normally
  receive(13);
}

TEST(DfuWithoutChannel, OpenFailureEndsSessionAndBareStateQueryIsHandedOver) {
  marlo::test::TestRoot root;
  root.write("/vendor/firmware_mnt/image/partition_table.xml", "<t><Bank_1/></t>");
  RecordingCallback cb;
  marlo_fw_updater updater;
  updater.startMarloDownloaderWithCallback(&cb);  // nothing listens on the channel
  const auto reports = cb.reports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0], RecordingCallback::Report("Marlo dfu channel open failed", Status::STATUS_CHANNEL_ERROR));
  EXPECT_EQ(reports[1], RecordingCallback::Report("MarloDownloader END", Status::STATUS_ENDED));
  EXPECT_EQ(updater.firmwareResources().size(), 2u);  // loaded after the end all the same
  updater.eraseAllRAWPartitionAndContinueDownload();  // no transport: nothing happens
  EXPECT_EQ(cb.reports().size(), 2u);

  Bytes state7 = dfu_message(14, {1, 0, 0, 7, 0, 0, 0});
  updater.conn_res_event_cb(state7.data(), static_cast<uint32_t>(state7.size()));
  EXPECT_EQ(cb.count("Current Marlo DFU state =  ", Status::STATUS_INFO), 1);
  ASSERT_EQ(cb.states().size(), 1u);
  EXPECT_EQ(cb.states()[0], static_cast<DFUState>(7));
  Bytes failed = dfu_message(14, {1, 5, 0, 0, 0, 0, 0});
  updater.conn_res_event_cb(failed.data(), static_cast<uint32_t>(failed.size()));
  EXPECT_EQ(cb.count("Get Marlo DFU State Failed.", Status::STATUS_ERROR), 1);
  Bytes other_op = dfu_message(14, {2, 0, 0, 0, 0, 0, 0});
  const size_t before = cb.reports().size();
  updater.conn_res_event_cb(other_op.data(), static_cast<uint32_t>(other_op.size()));
  EXPECT_EQ(cb.reports().size(), before + 1);  // only the response-code report
  EXPECT_EQ(cb.states().size(), 1u);
}

TEST(DfuMessageDeathTest, MessageLongerThanRxBufferAborts) {
  Bytes message = dfu_message(2, {}, 45);
  EXPECT_DEATH(
      {
        marlo_fw_updater updater;
        updater.conn_res_event_cb(message.data(), static_cast<uint32_t>(message.size()));
      },
      "more than 44");
}

}  // namespace
