// A transport under test against a virtual co-processor: a device node at
// <root>/dev/<channel>, the peer's end of the open channel, and what the
// transport reported through its callbacks. Every case ends with the
// wakelock given back: no reference held, and as many releases written to
// the kernel as acquisitions.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comhandler/client_wakelock.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "sim/device_node.h"
#include "support/log_capture.h"
#include "support/test_root.h"
#include "support/wait_until.h"
#include "support/wakelock_records.h"

namespace marlo::test {

using Bytes = std::vector<uint8_t>;
using Errors = std::vector<glink_interface_error>;

class GlinkChannelTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { kernel_root(); }
  void SetUp() override {
    marlo_deamon_log::set_level(marlo_deamon_log::LOG_LEVEL_VERBOSE);
    root_.mkdir("/dev");
  }
  void TearDown() override {
    glink_.reset();  // before the peer hangs up, or the reader would reopen
    if (peer_ >= 0) ::close(peer_);
    wakelock_released();
  }

  // The process-wide wakelock opens its kernel files on its first use and
  // keeps them: they live in a root of their own for the whole program.
  static const TestRoot& kernel_root() {
    static const struct Kernel {
      Kernel() {
        root.write("/sys/power/wake_lock", "");
        root.write("/sys/power/wake_unlock", "");
        client_wakelock::get_instance();
      }
      TestRoot root;
    } kernel;
    return kernel.root;
  }
  // Expects every wakelock reference given back (a reader may still be
  // finishing a delivery); returns the acquisitions the kernel has seen.
  static size_t wakelock_released() {
    client_wakelock* wakelock = client_wakelock::get_instance();
    EXPECT_TRUE(wait_until([&] { return wakelock->references() == 0; }, std::chrono::seconds(5)))
        << "a channel operation kept its wakelock reference";
    const size_t acquired = wakelock_records(kernel_root().read("/sys/power/wake_lock"));
    EXPECT_EQ(wakelock_records(kernel_root().read("/sys/power/wake_unlock")), acquired);
    return acquired;
  }

  int connect(const char* channel, uint32_t read_size, bool start_reader = true) {
    node_ = std::make_unique<sim::DeviceNode>(root_.at(std::string("/dev/") + channel));
    glink_ = std::make_unique<marlo_glink>(glink_conn_config{channel, read_size});
    packets_.clear();  // no reader runs now
    errors_.clear();
    glink_->register_cb([this](uint8_t* data, uint32_t length) { record(&packets_, Bytes(data, data + length)); },
                        [this](glink_interface_error error) { record(&errors_, error); });
    return connect_again(start_reader);
  }
  // The device accepts on its own thread: an open waits for its status.
  int connect_again(bool start_reader = true) {
    std::thread device([this] { peer_ = node_->accept_open(2000); });
    int result = glink_->connect_interface(start_reader);
    device.join();
    channel_fd_ = connected_descriptor(node_->path());
    return result;
  }
  // The descriptor of this process connected to the node at `path` (the
  // transport's channel), or -1.
  static int connected_descriptor(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int fd = std::atoi(entry.path().filename().c_str());
      struct sockaddr_un peer = {};
      socklen_t length = sizeof(peer);
      if (::getpeername(fd, reinterpret_cast<struct sockaddr*>(&peer), &length) == 0 && peer.sun_family == AF_UNIX &&
          path == peer.sun_path) {
        return fd;
      }
    }
    return -1;
  }

  void send(const Bytes& packet) { ASSERT_TRUE(sim::send_packet(peer_, packet.data(), packet.size())); }
  // `size` bytes with `length` little-endian at `offset`.
  static Bytes framed(size_t size, size_t offset, uint32_t length) {
    Bytes packet(size);
    for (size_t i = 0; i < size; ++i) packet[i] = static_cast<uint8_t>(i * 7 + 1);
    if (offset + 4 <= size) std::memcpy(packet.data() + offset, &length, 4);
    return packet;
  }
  // A packet the first read completed: zero-padded to the first read's size.
  static Bytes padded(Bytes packet, size_t read_size) {
    packet.resize(std::max(packet.size(), read_size), 0);
    return packet;
  }

  // What was reported, once at least `count` entries are there (or 5 s).
  std::vector<Bytes> packets(size_t count) { return wait(&packets_, count); }
  Errors errors(size_t count) { return wait(&errors_, count); }
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
  template <typename T>
  void record(std::vector<T>* list, T entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    list->push_back(std::move(entry));
    changed_.notify_all();
  }
  template <typename T>
  std::vector<T> wait(std::vector<T>* list, size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return list->size() >= count; });
    return *list;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Bytes> packets_;
  Errors errors_;
};

}  // namespace marlo::test
