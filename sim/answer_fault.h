// A fault in what the co-processor answers on one channel, armed from
// outside and applied to the channel's next answers: an answer cut short
// then silence, no answer at all then silence, or one word of an answer
// replaced (a failure status). Silence lasts until the daemon opens the
// channel again, as with a co-processor that stopped half-way and restarts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/wire.h"

namespace marlo::sim {

struct AnswerFault {
  enum class Kind { None, CutShort, Silence, ReplaceWord };
  Kind kind = Kind::None;
  int skip = 0;            // answers sent normally before the fault applies
  size_t cut_to = 0;       // CutShort: bytes of the answer that are sent
  size_t word_offset = 0;  // ReplaceWord: where the word is
  uint32_t word = 0;

  std::string describe() const;
};

// What the channel does with one answer while a fault is armed.
struct AnswerShaping {
  bool send = true;        // false: the answer is not sent
  bool go_silent = false;  // no later answer on this connection is sent
  bool fault_spent = false;
};

// Applies `fault` to `answer` (changed in place); counts down its skip.
AnswerShaping shape_answer(AnswerFault& fault, Bytes& answer);

}  // namespace marlo::sim
