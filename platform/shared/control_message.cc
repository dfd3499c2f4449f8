#include "platform/shared/control_message.h"

#include <cstring>

namespace platform::control_message {

uint32_t block_word(const uint8_t* block, size_t offset) {
  uint32_t word;
  std::memcpy(&word, block + offset, sizeof(word));
  return word;
}

std::vector<uint8_t> request(unsigned long ioctl_request, const uint8_t* block, uint32_t reset_data) {
  const bool with_data = ioctl_request == kResetRequest;
  std::vector<uint8_t> message(sizeof(uint32_t) + kRequestBlock + (with_data ? sizeof(reset_data) : 0));
  const auto request_word = static_cast<uint32_t>(ioctl_request);
  std::memcpy(message.data(), &request_word, sizeof(request_word));
  std::memcpy(message.data() + sizeof(uint32_t), block, kRequestBlock);
  if (with_data) std::memcpy(message.data() + sizeof(uint32_t) + kRequestBlock, &reset_data, sizeof(reset_data));
  return message;
}

}  // namespace platform::control_message
