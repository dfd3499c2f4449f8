// A transport under test against a virtual co-processor: a device node at
// <root>/dev/<channel>, the peer's end of the open channel, and everything
// the transport reported through its callbacks.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"

namespace marlo::test {

using Bytes = std::vector<uint8_t>;

class GlinkChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.write("/sys/power/wake_lock", "");
    root_.write("/sys/power/wake_unlock", "");
    root_.mkdir("/dev");
  }
  void TearDown() override {
    glink_.reset();
    if (peer_ >= 0) ::close(peer_);
  }

  // Creates the node and the transport; connects it, the device accepting
  // on its own thread (an open waits for the device's open status).
  int connect(const char* channel, uint32_t read_size, bool start_reader = true) {
    if (!node_) node_ = std::make_unique<sim::DeviceNode>(root_.at(std::string("/dev/") + channel));
    if (!glink_) {
      glink_ = std::make_unique<marlo_glink>(glink_conn_config{channel, read_size});
      glink_->register_cb([this](uint8_t* data, uint32_t length) { record(Bytes(data, data + length)); },
                          [this](glink_interface_error error) { record(error); });
    }
    return connect_again(start_reader);
  }
  int connect_again(bool start_reader = true) {
    // The channel's descriptor is the lowest free one when the open starts.
    int probe = ::open("/dev/null", O_RDONLY);
    ::close(probe);
    channel_fd_ = probe;
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    int result = glink_->connect_interface(start_reader);
    device.join();
    return result;
  }

  void send(const Bytes& packet) { ASSERT_TRUE(sim::send_packet(peer_, packet.data(), packet.size())); }

  // A packet of `size` bytes with `length` little-endian at `offset`.
  static Bytes framed(size_t size, size_t offset, uint32_t length) {
    Bytes packet(size);
    for (size_t i = 0; i < size; ++i) packet[i] = static_cast<uint8_t>(i * 7 + 1);
    if (offset + 4 <= size) std::memcpy(packet.data() + offset, &length, 4);
    return packet;
  }

  // `packet` as the reader delivers it when it ends before its length field
  // or below the first read's size: zero-padded to that size.
  static Bytes padded(Bytes packet, size_t read_size) {
    if (packet.size() < read_size) packet.resize(read_size, 0);
    return packet;
  }

  // Waits until `count` packets (or errors) were reported; what was reported.
  std::vector<Bytes> packets(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return packets_.size() >= count; });
    return packets_;
  }
  std::vector<glink_interface_error> errors(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return errors_.size() >= count; });
    return errors_;
  }

  bool wait_log(const std::string& text) {
    for (int i = 0; i < 5000 && !log_.contains(text); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return log_.contains(text);
  }

  TestRoot root_;
  LogCapture log_;
  std::unique_ptr<sim::DeviceNode> node_;
  std::unique_ptr<marlo_glink> glink_;
  int peer_ = -1;
  int channel_fd_ = -1;

 private:
  void record(Bytes packet) {
    std::lock_guard<std::mutex> lock(mutex_);
    packets_.push_back(std::move(packet));
    changed_.notify_all();
  }
  void record(glink_interface_error error) {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_.push_back(error);
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Bytes> packets_;
  std::vector<glink_interface_error> errors_;
};

}  // namespace marlo::test
