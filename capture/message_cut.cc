#include "capture/message_cut.h"

#include <algorithm>
#include <cstdint>

#include "common/dfu_wire.h"
#include "common/misc_data_wire.h"
#include "common/rma_wire.h"

namespace marlo::capture {

namespace {

using platform::wire::Direction;
using platform::wire::Message;
using platform::wire::Node;

// Where the data starts in the messages that carry some.
constexpr size_t kDfuFragmentAt = dfu::DFU_HEADER_SIZE + dfu::DFU_OFFSET_RESP_FIXED_PAYLOAD;
constexpr size_t kMiscDataAt = misc_data::kShmHeaderSize;
constexpr size_t kRmaBlockAt = rma::kBlockOffset;

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
      if (m.direction == Direction::Outbound && length >= 4 &&
          word_at(m, dfu::DFU_HDR_COMMAND_ID) == dfu::IMG_OFFSET_RESP)
        keep = kDfuFragmentAt;
      break;
    case Node::Misc:
      if (m.direction == Direction::Outbound && length >= 4) {
        const uint32_t kind = word_at(m, 0);
        if (kind == misc_data::SHM_PKT_DATA_MORE || kind == misc_data::SHM_PKT_DATA_LAST) keep = kMiscDataAt;
      }
      break;
    case Node::Rma:
      if (length >= rma::kHeaderSize) {
        const uint32_t cmd = word_at(m, rma::kCommandOffset);
        if ((m.direction == Direction::Inbound && cmd == rma::RMA_DATA_WRITE) ||
            (m.direction == Direction::Outbound && cmd == rma::RMA_DATA_READ_RESP)) {
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
