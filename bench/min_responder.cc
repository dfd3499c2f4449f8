#include "bench/min_responder.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "sim/device_node.h"
#include "sim/dfu_message.h"

namespace marlo::bench {

namespace {
uint32_t word_at(const uint8_t* message, size_t offset) {
  uint32_t value;
  std::memcpy(&value, message + offset, sizeof(value));  // little-endian host, like the sender
  return value;
}
}  // namespace

MinResponder::MinResponder(const std::map<uint32_t, sim::Bytes>& images, uint32_t fragment_size)
    : fragment_size_(fragment_size) {
  for (const auto& [id, image] : images) {
    const uint32_t size = static_cast<uint32_t>(image.size());
    info_[id] = sim::make_dfu_message(sim::kImgInfoResp, {id, size, 0});
    std::vector<sim::Bytes>& answers = fragments_[id];
    for (uint32_t offset = 0; offset < size; offset += fragment_size) {
      const uint32_t length = std::min(fragment_size, size - offset);
      sim::Bytes payload;
      for (uint32_t word : {id, offset, length}) sim::append_u32(payload, word);
      payload.insert(payload.end(), image.begin() + offset, image.begin() + offset + length);
      answers.push_back(sim::make_dfu_message(sim::kImgOffsetResp, payload));
    }
  }
}

MinResponder::~MinResponder() {
  join();
  if (fd_ >= 0) ::close(fd_);
}

bool MinResponder::start(const std::string& socket_path) {
  struct sockaddr_un addr {};
  addr.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof(addr.sun_path)) return false;
  std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
  fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) return false;
  int32_t status = -1;
  if (::recv(fd_, &status, sizeof(status), 0) != static_cast<ssize_t>(sizeof(status)) || status != 0) return false;
  const char text[8] = {'I', 'M', 'G', ' ', 'U', 'P', 'D', 'T'};
  sim::Bytes payload;
  for (uint32_t word : {1u, 0u, 0u}) sim::append_u32(payload, word);
  payload.insert(payload.end(), text, text + sizeof(text));
  const sim::Bytes request = sim::make_dfu_message(sim::kMgUpdtReq, payload);
  if (!sim::send_packet(fd_, request.data(), request.size())) return false;
  thread_ = std::thread(&MinResponder::serve, this);
  return true;
}

void MinResponder::join() {
  if (thread_.joinable()) thread_.join();
}

const sim::Bytes* MinResponder::offset_response(uint32_t image_id, uint32_t offset, uint32_t length) const {
  auto it = fragments_.find(image_id);
  if (it == fragments_.end() || offset % fragment_size_ != 0) return nullptr;
  const size_t index = offset / fragment_size_;
  if (index >= it->second.size()) return nullptr;
  const sim::Bytes& answer = it->second[index];
  return answer.size() == sim::kDfuHeaderSize + 12 + length ? &answer : nullptr;
}

void MinResponder::serve() {
  uint8_t buffer[64] = {};
  const sim::Bytes session_end = sim::make_dfu_message(sim::kSessionEndResp, {0, 0, 0});
  for (;;) {
    const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (n < 16) return;  // closed, failed, or not a message
    const uint32_t id = word_at(buffer, 0);
    const sim::Bytes* answer = nullptr;
    if (id == sim::kImgInfoReq && n >= 20) {
      auto it = info_.find(word_at(buffer, 16));
      if (it != info_.end()) answer = &it->second;
    } else if (id == sim::kImgOffsetReq && n >= 28) {
      answer = offset_response(word_at(buffer, 16), word_at(buffer, 20), word_at(buffer, 24));
    } else if (id == sim::kSessionEndReq) {
      sim::send_packet(fd_, session_end.data(), session_end.size());
      return;
    }
    if (answer != nullptr) sim::send_packet(fd_, answer->data(), answer->size());
  }
}

}  // namespace marlo::bench
