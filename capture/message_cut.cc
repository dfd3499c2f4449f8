#include "capture/message_cut.h"

#include <algorithm>
#include <cstdint>

namespace marlo::capture {

namespace {

using platform::wire::Direction;
using platform::wire::Message;
using platform::wire::Node;

constexpr uint32_t kImgOffsetResp = 6;
constexpr size_t kDfuFragmentAt = 28;
constexpr uint32_t kMiscDataMore = 1;
constexpr uint32_t kMiscDataLast = 2;
constexpr size_t kMiscDataAt = 16;
constexpr uint32_t kRmaDataReadResp = 257;
constexpr uint32_t kRmaDataWrite = 512;
constexpr size_t kRmaBlockAt = 32;

uint32_t word_at(const Message& m, size_t offset) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) v |= static_cast<uint32_t>(m.at(offset + i)) << (8 * i);
  return v;
}

}  // namespace

size_t kept_of_headers(const Message& m) {
  const size_t length = m.length();
  size_t keep = length;
  switch (m.node) {
    case Node::Dfu:
      if (m.direction == Direction::Outbound && length >= 4 && word_at(m, 0) == kImgOffsetResp) keep = kDfuFragmentAt;
      break;
    case Node::Misc:
      if (m.direction == Direction::Outbound && length >= 4) {
        const uint32_t kind = word_at(m, 0);
        if (kind == kMiscDataMore || kind == kMiscDataLast) keep = kMiscDataAt;
      }
      break;
    case Node::Rma:
      if (length >= 12) {
        const uint32_t cmd = word_at(m, 8);
        if ((m.direction == Direction::Inbound && cmd == kRmaDataWrite) ||
            (m.direction == Direction::Outbound && cmd == kRmaDataReadResp)) {
          keep = kRmaBlockAt;
        }
      }
      break;
    case Node::Control:
    case Node::Uevent: break;
  }
  return std::min(keep, length);
}

}  // namespace marlo::capture
