// What a "headers" capture keeps of a message: every header and protocol
// word, none of the data a message carries for the co-processor's storage or
// the user's:
//   DFU IMG_OFFSET_RESP (daemon -> co-processor)    the 28-byte header and words, not the fragment
//   misc-data DATA_MORE / DATA_LAST (daemon -> co)  the 16-byte header, not the payload
//   RMA DATA_WRITE (co -> daemon)                   the 32-byte header, not the block
//   RMA DATA_READ_RESP (daemon -> co)               the 32-byte header, not the block
// Every other message is kept whole.
#pragma once

#include <cstddef>

#include "platform/wire_tap.h"

namespace marlo::capture {

size_t kept_of_headers(const platform::wire::Message& message);

}  // namespace marlo::capture
