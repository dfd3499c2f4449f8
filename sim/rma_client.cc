#include "sim/rma_client.h"

#include <algorithm>
#include <cstring>

#include "common/crc32.h"
#include "sim/device_root.h"

namespace marlo::sim {

namespace {
constexpr size_t kRmaHeader = 12;
constexpr size_t kMaxProblems = 200;
}  // namespace

Bytes make_rma_message(uint32_t command, const Bytes& payload) {
  Bytes m(kRmaHeader + payload.size(), 0);
  put_u32(m, 4, static_cast<uint32_t>(m.size()));
  put_u32(m, 8, command);
  if (!payload.empty()) std::memcpy(m.data() + kRmaHeader, payload.data(), payload.size());
  put_u32(m, 0, crc32(m.data() + 4, m.size() - 4));
  return m;
}

RmaClient::RmaClient(const std::string& root, EventLog& log, RmaConfig config)
    : ChannelServer(root + "/dev/glink_pkt_marlo_rma"), root_(root), log_(log), config_(std::move(config)) {}

RmaClient::~RmaClient() { stop(); }

std::string RmaClient::backing_file(const RmaPartition& p) {
  return "/data/vendor/aon/" + std::to_string(p.memory_id) + std::to_string(p.second_id) + std::to_string(p.memory_id);
}

Bytes RmaClient::run_pattern(uint32_t run, const RmaPartition& p, uint32_t offset, uint32_t length) {
  Bytes out(length);
  for (uint32_t k = 0; k < length; ++k) {
    const uint32_t i = offset + k;
    out[k] = static_cast<uint8_t>(run * 13 + p.memory_id * 31 + i * 7 + (i >> 8));
  }
  return out;
}

void RmaClient::on_power(bool up) {
  std::lock_guard<std::mutex> lock(mutex_);
  up_ = up;
  pending_ = up;
  if (!up && awaiting_) log_.add("rma", "co-processor down: run " + std::to_string(run_) + " abandoned");
  awaiting_ = false;
  steps_.clear();
}

void RmaClient::restart_after_messages(int messages, std::function<void()> restart) {
  std::lock_guard<std::mutex> lock(mutex_);
  restart_after_ = messages;
  restart_ = std::move(restart);
}

RmaStatus RmaClient::status() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

std::string RmaClient::verify_backing_files() const {
  RmaStatus s = status();
  if (s.runs_completed == 0) return "no RMA run has completed";
  for (const RmaPartition& p : config_.partitions) {
    std::string contents = read_text(root_ + backing_file(p));
    Bytes expected = run_pattern(s.last_completed_run, p);
    if (contents.size() != expected.size() || std::memcmp(contents.data(), expected.data(), expected.size()) != 0) {
      return "backing file " + backing_file(p) + " does not hold the written data";
    }
  }
  return "";
}

void RmaClient::on_open(int) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (up_ && pending_) start_run();
}

void RmaClient::start_run() {
  pending_ = false;
  ++run_;
  ++status_.runs_started;
  steps_.clear();
  for (size_t i = 0; i < config_.partitions.size(); ++i) {
    const RmaPartition& p = config_.partitions[i];
    steps_.push_back({kRmaConnect, i, 0});
    for (uint32_t off = 0; off < p.size && !config_.read_only; off += config_.block_size) {
      steps_.push_back({kRmaDataWrite, i, off});
    }
    for (uint32_t off = 0; off < p.size; off += config_.block_size) steps_.push_back({kRmaDataRead, i, off});
    steps_.push_back({kRmaDisconnect, i, 0});
  }
  next_ = 0;
  log_.add("rma", "run " + std::to_string(run_) + ": " + std::to_string(steps_.size()) + " requests");
  send_step();
}

Bytes RmaClient::request_for(const Step& step) const {
  const RmaPartition& p = config_.partitions[step.partition];
  uint32_t block = std::min(config_.block_size, p.size - step.offset);
  Bytes payload;
  switch (step.command) {
    case kRmaConnect:
      // request word, memory id, second id, size, 0, 0, client value
      for (uint32_t w : {0u, p.memory_id, p.second_id, p.size, 0u, 0u, config_.client_priv}) append_u32(payload, w);
      break;
    case kRmaDisconnect:
      for (uint32_t w : {0u, p.memory_id}) append_u32(payload, w);
      break;
    default: {
      // The request word carries the memory id, so that the host names the
      // backing file the same way for reads and writes.
      for (uint32_t w : {p.memory_id, p.memory_id, step.offset, block, 0u}) append_u32(payload, w);
      if (step.command == kRmaDataWrite) {
        const Bytes pattern = run_pattern(run_, p, step.offset, block);
        payload.insert(payload.end(), pattern.begin(), pattern.end());
      }
    }
  }
  return make_rma_message(step.command, payload);
}

void RmaClient::send_step() {
  int fd = newest_connection();
  if (fd < 0 || next_ >= steps_.size()) return;
  if (restart_after_ > 0 && --restart_after_ == 0 && restart_) {
    log_.add("rma", "fault: co-processor restart during RMA traffic");
    awaiting_ = false;
    restart_();
    return;
  }
  send(fd, request_for(steps_[next_]));
  ++status_.messages;
  awaiting_ = true;
  sent_at_ = std::chrono::steady_clock::now();
  deadline_ = sent_at_ + std::chrono::milliseconds(config_.answer_timeout_ms);
}

std::string RmaClient::check_answer(const Bytes& m, const Step& step) const {
  if (m.size() < kRmaHeader) return "short answer";
  if (get_u32(m, 4) != m.size()) return "length field does not match the answer";
  if (crc32(m.data() + 4, m.size() - 4) != get_u32(m, 0)) return "answer CRC mismatch";
  const RmaPartition& p = config_.partitions[step.partition];
  uint32_t block = std::min(config_.block_size, p.size - step.offset);
  auto words_are = [&](std::initializer_list<uint32_t> words) {
    size_t at = kRmaHeader;
    for (uint32_t w : words) {
      if (get_u32(m, at) != w) return false;
      at += 4;
    }
    return true;
  };
  switch (step.command) {
    case kRmaConnect:
      if (m.size() != kRmaHeader + 24 || !words_are({config_.client_priv, 0, p.memory_id, 3, 4096, 4096})) {
        return "unexpected CONNECT answer";
      }
      return "";
    case kRmaDisconnect:
      if (m.size() != kRmaHeader + 16 || !words_are({p.memory_id, config_.client_priv, p.memory_id, 0})) {
        return "unexpected DISCONNECT answer";
      }
      return "";
    case kRmaDataWrite:
      if (m.size() != kRmaHeader + 20 || !words_are({p.memory_id, config_.client_priv, p.memory_id, block})) {
        return "unexpected DATA_WRITE answer";
      }
      if (get_u32(m, kRmaHeader + 16) != 0) return "host could not write block at " + std::to_string(step.offset);
      return "";
    default: {
      if (m.size() != kRmaHeader + 20 + block ||
          !words_are({p.memory_id, config_.client_priv, p.memory_id, block, 0})) {
        return "unexpected DATA_READ answer of " + std::to_string(m.size()) + " bytes";
      }
      if (config_.read_only) return "";
      const Bytes pattern = run_pattern(run_, p, step.offset, block);
      if (std::memcmp(m.data() + kRmaHeader + 20, pattern.data(), block) != 0) {
        return "block at " + std::to_string(step.offset) + " of memory " + std::to_string(p.memory_id) +
               " read back different data";
      }
      return "";
    }
  }
}

void RmaClient::set_answer_tap(std::function<bool(const Bytes&)> tap) {
  std::lock_guard<std::mutex> lock(mutex_);
  tap_ = std::move(tap);
}

void RmaClient::on_packet(int, const Bytes& m) {
  const auto answered = std::chrono::steady_clock::now();  // before the answer is checked
  std::function<bool(const Bytes&)> tap;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    tap = tap_;
  }
  if (tap && tap(m)) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (!awaiting_ || next_ >= steps_.size()) return;
  const Step& step = steps_[next_];
  if (get_u32(m, 8) != step.command + 1) {
    ++status_.bad_answers;
    return;  // a stale or stray answer; the timer asks again
  }
  std::string problem = check_answer(m, step);
  if (!problem.empty()) {
    ++status_.bad_answers;
    if (status_.problems.size() < kMaxProblems) status_.problems.push_back(problem);
    log_.add("rma", problem);
    awaiting_ = false;
    steps_.clear();  // the run failed
    return;
  }
  awaiting_ = false;
  if (step.command == kRmaDataRead && config_.read_only) {
    status_.reads[{step.partition, step.offset}] = Bytes(m.begin() + kRmaHeader + 20, m.end());
  }
  if (step.command == kRmaDataWrite) {
    ++status_.blocks_written;
    status_.write_wait += answered - sent_at_;
  } else if (step.command == kRmaDataRead) {
    ++status_.blocks_read;
    status_.read_wait += answered - sent_at_;
  }
  if (++next_ == steps_.size()) {
    ++status_.runs_completed;
    status_.last_completed_run = run_;
    log_.add("rma", "run " + std::to_string(run_) + " complete: every block read back intact");
    return;
  }
  send_step();
}

void RmaClient::on_tick() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (up_ && pending_ && newest_connection() >= 0) {
    start_run();
    return;
  }
  if (!awaiting_ || std::chrono::steady_clock::now() < deadline_) return;
  ++status_.resends;
  log_.add("rma", "no answer: asking again");
  send_step();
}

}  // namespace marlo::sim
