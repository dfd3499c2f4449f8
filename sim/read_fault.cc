#include "sim/read_fault.h"

#include <utility>

namespace marlo::sim {

const char* read_fault_name(ReadFault fault) {
  switch (fault) {
    case ReadFault::CutShort: return "cut short";
    case ReadFault::EndOfStream: return "end-of-stream";
    case ReadFault::ReadError: return "read error";
    case ReadFault::Silence: return "silence";
  }
  return "?";
}

void ReadFaultSwitch::arm(ReadFault fault, int packet, std::function<void()> on_strike) {
  std::lock_guard<std::mutex> lock(mutex_);
  armed_ = packet > 0;
  struck_ = false;
  fault_ = fault;
  countdown_ = packet;
  on_strike_ = std::move(on_strike);
}

void ReadFaultSwitch::end() {
  std::lock_guard<std::mutex> lock(mutex_);
  struck_ = false;
}

bool ReadFaultSwitch::struck() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return struck_;
}

ReadFaultSwitch::Action ReadFaultSwitch::strike(Action action, std::unique_lock<std::mutex>& lock) {
  armed_ = false;
  struck_ = true;
  std::function<void()> on_strike = std::move(on_strike_);
  lock.unlock();
  if (on_strike) on_strike();
  return action;
}

ReadFaultSwitch::Action ReadFaultSwitch::on_send() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (struck_) return Action::Drop;
  if (!armed_ || fault_ == ReadFault::ReadError || --countdown_ > 0) return Action::Pass;
  switch (fault_) {
    case ReadFault::CutShort: return strike(Action::Cut, lock);
    case ReadFault::EndOfStream: return strike(Action::HalfClose, lock);
    default: return strike(Action::Drop, lock);
  }
}

ReadFaultSwitch::Action ReadFaultSwitch::on_receive() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (struck_) return Action::Drop;
  if (!armed_ || fault_ != ReadFault::ReadError || --countdown_ > 0) return Action::Pass;
  return strike(Action::Reset, lock);
}

bool ReadFaultSwitch::breaks_next_send() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return struck_ || (armed_ && fault_ != ReadFault::ReadError && countdown_ == 1);
}

bool ReadFaultSwitch::half_close_new_connection() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return struck_ && fault_ == ReadFault::EndOfStream;
}

}  // namespace marlo::sim
