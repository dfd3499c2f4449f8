// Who destroys the RMA client's transport, and when: always its owner, on the
// owner's thread, once the transport's connect and callbacks have returned.
// The transport is a real channel transport seen through a wrapper that can
// hold a callback at its start, so that each interleaving is forced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "common/le32.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "rma/marlo_rma.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"

namespace marlo::test {
namespace {

using namespace std::chrono_literals;

// What the watched transports saw, shared by every transport the client made.
struct Watch {
  std::atomic<int> made{0};
  std::atomic<int> destroyed{0};
  // A transport was destroyed inside one of its own calls or callbacks.
  std::atomic<bool> destroyed_while_running{false};
  // Whether the first data callback is held at its start; set before the
  // client starts.
  bool hold = false;
  std::promise<void> held;
  std::promise<void> released;
  std::shared_future<void> release = released.get_future().share();
  std::atomic<bool> was_held{false};

  void enter() {
    if (!hold || was_held.exchange(true)) return;
    held.set_value();
    release.wait();
  }
};

// A real channel transport that counts itself, knows which of its calls and
// callbacks this thread is in, and can hold a callback at its start.
class WatchedTransport : public marlo_glink {
 public:
  WatchedTransport(const glink_conn_config& config, Watch* watch) : marlo_glink(config), watch_(watch) {
    ++watch_->made;
  }
  ~WatchedTransport() override {
    if (inside_ == this) watch_->destroyed_while_running = true;
    ++watch_->destroyed;
  }

  int register_cb(glink_data_cb data_cb, glink_error_cb error_cb) override {
    // The callbacks may outlive this part of the object until the reader is
    // joined: they hold the watch and the transport's address, never `this`.
    return marlo_glink::register_cb(
        [watch = watch_, self = this, data_cb](uint8_t* data, uint32_t length) {
          Inside scope(self);
          watch->enter();
          data_cb(data, length);
        },
        [self = this, error_cb](glink_interface_error error) {
          Inside scope(self);
          error_cb(error);
        });
  }
  int connect_interface(bool start_reader) override {
    Inside scope(this);
    return marlo_glink::connect_interface(start_reader);
  }

 private:
  // Marks this thread as inside a call of `self` while it lives.
  class Inside {
   public:
    explicit Inside(const WatchedTransport* self) : outer_(std::exchange(inside_, self)) {}
    ~Inside() { inside_ = outer_; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

   private:
    const WatchedTransport* outer_;
  };
  static thread_local const WatchedTransport* inside_;

  Watch* const watch_;
};

thread_local const WatchedTransport* WatchedTransport::inside_ = nullptr;

class RmaTransportLifetime : public ::testing::Test {
 protected:
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.mkdir("/data/vendor/aon");
    root_.mkdir("/dev");
  }
  void TearDown() override {
    rma_.reset();
    for (int peer : peers_) ::close(peer);
    EXPECT_EQ(watch_.destroyed.load(), watch_.made.load());
    EXPECT_FALSE(watch_.destroyed_while_running) << "a transport was destroyed inside its own call or callback";
  }

  // Accepts the next open of the channel on a thread of its own.
  std::future<int> accept_open() {
    return std::async(std::launch::async, [this] { return node_->accept_open(2000); });
  }
  void start() {
    auto peer = accept_open();
    rma_->startMarloRmaConnection();
    peers_.push_back(peer.get());
    ASSERT_GE(peers_.back(), 0);
  }
  // A CONNECT of memory id 1 (second id 2, 4096 bytes) and its answer.
  static std::vector<uint8_t> connect_request() {
    std::vector<uint8_t> message;
    for (uint32_t word : {0, 40, 0, 0, 1, 2, 4096, 0, 0, 0}) append_le32(message, word);
    return message;  // the client answers whatever the CRC
  }
  bool answered(int peer) {
    const std::vector<uint8_t> request = connect_request();
    if (!sim::send_packet(peer, request.data(), request.size())) return false;
    std::vector<uint8_t> answer;
    return sim::receive_message(peer, answer, 5000) > 12;
  }
  TestRoot root_;
  LogCapture log_;
  Watch watch_;
  std::unique_ptr<sim::DeviceNode> node_;
  std::vector<int> peers_;
  std::unique_ptr<marlo_rma> rma_ = std::make_unique<marlo_rma>(
      [this](const glink_conn_config& config) { return std::make_unique<WatchedTransport>(config, &watch_); });
};

// No device node: the three opens fail and the failure is reported from
// inside the connect. The client drops the transport once the connect has
// returned; later answers find none.
TEST_F(RmaTransportLifetime, OpenFailureReportedInsideTheConnectIsActedOnAfterIt) {
  rma_->startMarloRmaConnection();
  EXPECT_EQ(log_.count("GLINK_int about to open glink channel on dev node = /dev/glink_pkt_marlo_rma"), 3);
  EXPECT_TRUE(log_.contains("conn_error_cb =0"));
  EXPECT_EQ(watch_.destroyed, 1);
  EXPECT_EQ(rma_->send_aon_request(1, nullptr, 0), 0) << "no transport";
  node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
  start();
  EXPECT_TRUE(answered(peers_.back())) << "a later start opens the channel anew";
}

// The owner restarts the client while the old transport's reader handles a
// request. The old transport goes once the callback has returned; the answer
// it sends after the transport was taken out is dropped.
TEST_F(RmaTransportLifetime, RestartWhileACallbackRunsDestroysTheOldTransportOnceItHasReturned) {
  watch_.hold = true;
  node_ = std::make_unique<sim::DeviceNode>(root_.at("/dev/glink_pkt_marlo_rma"));
  start();
  const std::vector<uint8_t> request = connect_request();
  ASSERT_TRUE(sim::send_packet(peers_.back(), request.data(), request.size()));
  ASSERT_EQ(watch_.held.get_future().wait_for(5s), std::future_status::ready);
  // The restart on a thread of its own; the callback goes on once the old
  // transport is being destroyed.
  auto peer = accept_open();
  auto restarted = std::async(std::launch::async, [this] { rma_->startMarloRmaConnection(); });
  EXPECT_TRUE(wait_until([&] { return log_.contains(" destructor"); }, 5s));
  EXPECT_EQ(restarted.wait_for(20ms), std::future_status::timeout) << "the restart waits for the callback";
  watch_.released.set_value();
  restarted.get();
  peers_.push_back(peer.get());
  ASSERT_GE(peers_.back(), 0);
  EXPECT_EQ(watch_.destroyed, 1);
  EXPECT_TRUE(answered(peers_.back())) << "the new transport serves";
  EXPECT_EQ(log_.count("glinkInterface != nullptr"), 1) << "the old reader's answer";
}

}  // namespace
}  // namespace marlo::test
