// The control device's ioctl as one request message, the form the virtual
// device carries it in and the wire capture records it in on both backends:
// the request word, the 32-byte request block, then the reset request's data
// word. Its answer is the result, the errno, the block as the driver left it,
// then the version query's record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace platform::control_message {

// Requests whose data travels beside the request block.
constexpr unsigned long kResetRequest = 0xc0205605;
constexpr unsigned long kIpcRequest = 0xc0205608;
constexpr size_t kRequestBlock = 32;
constexpr size_t kVersionRecord = 308;
// Words of the block that point at the request's data.
constexpr size_t kBlockValueWord = 0;
constexpr size_t kBlockReplyWord = 28;
// Result and errno words before the block.
constexpr size_t kAnswerHeader = 8;
constexpr size_t kMaxAnswer = kAnswerHeader + kRequestBlock + kVersionRecord;

uint32_t block_word(const uint8_t* block, size_t offset);

// The request message; `reset_data` is the reset request's data word, left
// out for every other request.
std::vector<uint8_t> request(unsigned long ioctl_request, const uint8_t* block, uint32_t reset_data);

}  // namespace platform::control_message
