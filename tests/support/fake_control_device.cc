#include "support/fake_control_device.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace marlo::test {

constexpr uint32_t kResetRequest = 0xc0205605;

FakeControlDevice::FakeControlDevice(const std::string& socket_path)
    : node_(socket_path), thread_([this] { serve(); }) {}

FakeControlDevice::~FakeControlDevice() {
  stop_ = true;
  thread_.join();
}

void FakeControlDevice::set_responder(Responder responder) {
  std::lock_guard<std::mutex> lock(mutex_);
  responder_ = std::move(responder);
}

std::vector<ControlRequest> FakeControlDevice::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::vector<uint8_t> FakeControlDevice::version_record(uint32_t kapi, const std::string& apps, const std::string& dsp,
                                                       const std::string& bt) {
  std::vector<uint8_t> record(308, 0);
  std::memcpy(record.data() + 4, &kapi, sizeof(kapi));
  std::memcpy(record.data() + 8, apps.data(), std::min<size_t>(apps.size(), 99));
  std::memcpy(record.data() + 108, dsp.data(), std::min<size_t>(dsp.size(), 99));
  std::memcpy(record.data() + 208, bt.data(), std::min<size_t>(bt.size(), 99));
  return record;
}

void FakeControlDevice::serve() {
  while (!stop_) {
    int fd = node_.accept_open(20);
    if (fd < 0) continue;
    answer(fd);
    ::close(fd);
  }
}

// Answers the requests of one open until the daemon closes the device.
void FakeControlDevice::answer(int fd) {
  for (;;) {
    uint8_t message[4 + 32 + 4];
    long n = marlo::sim::receive_packet(fd, message, sizeof(message), 2000);
    if (n < 36) return;
    ControlRequest request;
    std::memcpy(&request.request, message, 4);
    std::memcpy(request.block, message + 4, 32);
    if (request.request == kResetRequest && n == 40) {
      request.has_data = true;
      std::memcpy(&request.data, message + 36, 4);
    }
    ControlAnswer reply;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
      if (responder_) reply = responder_(request);
    }
    std::vector<uint8_t> out(8 + 32);
    std::memcpy(out.data(), &reply.result, 4);
    std::memcpy(out.data() + 4, &reply.err, 4);
    std::memcpy(out.data() + 8, request.block, 32);
    out.insert(out.end(), reply.reply.begin(), reply.reply.end());
    if (!marlo::sim::send_packet(fd, out.data(), out.size())) return;
  }
}

}  // namespace marlo::test
