// A scripted control device for tests: listens at <root>/dev/marlo_com_dev,
// answers each ioctl message through a responder and records every request.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/device_node.h"

namespace marlo::test {

struct ControlRequest {
  uint32_t request = 0;
  uint32_t block[8] = {};
  bool has_data = false;
  uint32_t data = 0;  // the reset's data word
  uint32_t cmd() const { return block[5]; }
  uint32_t value() const { return block[0]; }
};

struct ControlAnswer {
  int32_t result = 0;
  int32_t err = 0;
  std::vector<uint8_t> reply;  // 308-byte version record, or empty
};

class FakeControlDevice {
 public:
  using Responder = std::function<ControlAnswer(const ControlRequest&)>;

  // Serves requests at `socket_path` until destroyed; every request is
  // answered with result 0 unless a responder is set.
  explicit FakeControlDevice(const std::string& socket_path);
  ~FakeControlDevice();

  void set_responder(Responder responder);
  std::vector<ControlRequest> requests() const;
  marlo::sim::DeviceNode& node() { return node_; }

  // A 308-byte version record with the given texts.
  static std::vector<uint8_t> version_record(uint32_t kapi, const std::string& apps, const std::string& dsp,
                                             const std::string& bt);

 private:
  void serve();
  void answer(int fd);

  marlo::sim::DeviceNode node_;
  mutable std::mutex mutex_;
  Responder responder_;
  std::vector<ControlRequest> requests_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace marlo::test
