#include "sim/answer_fault.h"

namespace marlo::sim {

std::string AnswerFault::describe() const {
  const std::string after = skip > 0 ? " after " + std::to_string(skip) + " answer(s)" : "";
  switch (kind) {
    case Kind::CutShort: return "answer cut to " + std::to_string(cut_to) + " bytes, then silence" + after;
    case Kind::Silence: return "no answer, then silence" + after;
    case Kind::ReplaceWord:
      return "answer word at " + std::to_string(word_offset) + " set to " + std::to_string(word) + after;
    case Kind::None: break;
  }
  return "no fault";
}

AnswerShaping shape_answer(AnswerFault& fault, Bytes& answer) {
  AnswerShaping shaping;
  if (fault.kind == AnswerFault::Kind::None) return shaping;
  if (fault.skip > 0) {
    --fault.skip;
    return shaping;
  }
  shaping.fault_spent = true;
  switch (fault.kind) {
    case AnswerFault::Kind::CutShort:
      if (fault.cut_to < answer.size()) answer.resize(fault.cut_to);
      shaping.go_silent = true;
      shaping.send = !answer.empty();
      break;
    case AnswerFault::Kind::Silence:
      shaping.send = false;
      shaping.go_silent = true;
      break;
    case AnswerFault::Kind::ReplaceWord:
      if (fault.word_offset + 4 <= answer.size()) put_u32(answer, fault.word_offset, fault.word);
      break;
    case AnswerFault::Kind::None: break;
  }
  fault = AnswerFault{};
  return shaping;
}

}  // namespace marlo::sim
