#include "sim/dfu_coprocessor.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace marlo::sim {

namespace {
constexpr int kMaxBadInARow = 3;
const uint8_t kImgUpdt[8] = {'I', 'M', 'G', ' ', 'U', 'P', 'D', 'T'};
}  // namespace

DfuCoprocessor::DfuCoprocessor(const std::string& root, VirtualFlash& flash, EventLog& log, DfuConfig config)
    : ChannelServer(root + "/dev/glink_pkt_marlo_dfu"), flash_(flash), log_(log), config_(std::move(config)) {}

DfuCoprocessor::~DfuCoprocessor() { stop(); }

void DfuCoprocessor::set_config(const DfuConfig& config) {
  std::lock_guard<std::mutex> lock(mutex_);
  config_ = config;
}

void DfuCoprocessor::drop_after_fragments(int fragments) {
  std::lock_guard<std::mutex> lock(mutex_);
  drop_at_.clear();
  if (fragments > 0) drop_at_.push_back(status_.fragments + fragments);
}

void DfuCoprocessor::drop_at_fragments(std::vector<int> counts) {
  std::sort(counts.begin(), counts.end());
  std::lock_guard<std::mutex> lock(mutex_);
  drop_at_ = std::move(counts);
}

void DfuCoprocessor::reset_state() {
  std::lock_guard<std::mutex> lock(mutex_);
  status_.state = kStateInit;
  status_.image_id = status_.offset = status_.fragment_len = status_.image_size = 0;
  awaiting_ = false;
}

DfuStatus DfuCoprocessor::status() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

Bytes DfuCoprocessor::current_request() const {
  switch (status_.state) {
    case kStateInfoReq: return make_dfu_message(kImgInfoReq, {status_.image_id});
    case kStateOffsetReq:
      return make_dfu_message(kImgOffsetReq, {status_.image_id, status_.offset, status_.fragment_len});
    case kStateSessionEndReq: return make_dfu_message(kSessionEndReq, Bytes{});
    default: return {};
  }
}

void DfuCoprocessor::ask(int fd) {
  Bytes request = current_request();
  if (request.empty()) return;
  // Taken before the send: on one processor the host may answer before the
  // send returns.
  asked_at_ = std::chrono::steady_clock::now();
  send(fd, request);
  awaiting_ = true;
  deadline_ = asked_at_ + std::chrono::milliseconds(config_.resend_ms);
}

void DfuCoprocessor::reject(int fd, const std::string& problem, bool crc) {
  (crc ? status_.crc_errors : status_.protocol_errors)++;
  log_.add("dfu", "rejected message: " + problem);
  if (++consecutive_bad_ >= kMaxBadInARow && status_.state != kStateInit) {
    log_.add("dfu", "too many bad messages in a row: cancelling the update");
    send(fd, make_dfu_message(kCancelUpdtReq, Bytes{}));
    status_.state = kStateInit;
    awaiting_ = false;
    consecutive_bad_ = 0;
    return;
  }
  ask(fd);  // ask again for what is still missing
}

void DfuCoprocessor::on_packet(int fd, const Bytes& m) {
  const auto received = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  received_at_ = received;
  std::string problem = check_dfu_message(m);
  if (!problem.empty()) {
    reject(fd, problem, problem == "CRC mismatch");
    return;
  }
  uint32_t id = get_u32(m, 0);
  switch (id) {
    case kSpclOperationReq: handle_special(fd, m); break;
    case kMgUpdtReq: {
      bool sound = m.size() == 36 && get_u32(m, 16) == 1 && get_u32(m, 20) == 0 && get_u32(m, 24) == 0 &&
                   std::memcmp(m.data() + 28, kImgUpdt, sizeof(kImgUpdt)) == 0;
      if (!sound) {
        reject(fd, "malformed MG_UPDT_REQ", false);
        break;
      }
      consecutive_bad_ = 0;
      ++status_.sessions_started;
      status_.session_bytes = 0;
      log_.add("dfu", "update session started");
      send(fd, make_dfu_message(kMgUpdtResp, Bytes{}));
      start_image(0);
      ask(fd);
      break;
    }
    case kImgInfoResp: handle_info_resp(fd, m); break;
    case kImgOffsetResp: handle_offset_resp(fd, m); break;
    case kSessionEndResp:
      if (status_.state != kStateSessionEndReq) {
        ++status_.stale_answers;
        break;
      }
      flash_.commit();
      ++status_.sessions_completed;
      status_.state = kStateInit;
      awaiting_ = false;
      log_.add("dfu", "session complete: new firmware committed to flash");
      break;
    default: reject(fd, "unexpected " + dfu_id_name(id), false);
  }
}

void DfuCoprocessor::handle_special(int fd, const Bytes& m) {
  uint32_t op = get_u32(m, 16);
  Bytes record;
  put_u32(record, 0, op);
  if (op == kSpclOpErase) {
    uint32_t offset = get_u32(m, 20), length = get_u32(m, 24);
    bool ok = flash_.erase(offset, length);
    status_.erases.emplace_back(offset, length);
    log_.add("dfu", "erase " + std::to_string(length) + " bytes at " + std::to_string(offset) + (ok ? "" : " failed"));
    put_u32(record, 4, ok ? 0 : 1);
  } else if (op == kSpclOpGetState) {
    ++status_.state_queries;
    put_u32(record, 4, 0);
    put_u32(record, 12, status_.state);
    if (status_.state == kStateInfoReq || status_.state == kStateOffsetReq) put_u32(record, 16, status_.image_id);
    if (status_.state == kStateOffsetReq) {
      put_u32(record, 20, status_.offset);
      put_u32(record, 24, status_.fragment_len);
    }
    log_.add("dfu", "state query answered: state " + std::to_string(status_.state) + " image " +
                        std::to_string(status_.image_id) + " offset " + std::to_string(status_.offset));
    // The host answers the reported request; ask again only if it does not.
    awaiting_ = status_.state != kStateInit;
    deadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(config_.resend_ms);
  } else {
    put_u32(record, 4, 1);
  }
  record.resize(28, 0);
  send(fd, make_dfu_message(kSpclOperationResp, record));
}

void DfuCoprocessor::start_image(size_t index) {
  image_index_ = index;
  if (index >= config_.image_ids.size()) {
    status_.state = kStateSessionEndReq;
    status_.image_id = status_.offset = status_.fragment_len = status_.image_size = 0;
    return;
  }
  status_.state = kStateInfoReq;
  status_.image_id = config_.image_ids[index];
  status_.offset = status_.fragment_len = status_.image_size = 0;
}

void DfuCoprocessor::handle_info_resp(int fd, const Bytes& m) {
  if (status_.state != kStateInfoReq || m.size() < 28 || get_u32(m, 16) != status_.image_id) {
    ++status_.stale_answers;
    return;
  }
  consecutive_bad_ = 0;
  uint32_t size = get_u32(m, 20);
  if (size == 0 || !flash_.begin_image(status_.image_id, size)) {
    ++status_.missing_images;
    log_.add("dfu", "host has no usable image " + std::to_string(status_.image_id) + " (size " + std::to_string(size) +
                        "), skipped");
    start_image(image_index_ + 1);
    ask(fd);
    return;
  }
  log_.add("dfu", "image " + std::to_string(status_.image_id) + ": " + std::to_string(size) + " bytes");
  status_.state = kStateOffsetReq;
  status_.image_size = size;
  status_.offset = 0;
  status_.fragment_len = std::min(config_.fragment_size, size);
  ask(fd);
}

void DfuCoprocessor::handle_offset_resp(int fd, const Bytes& m) {
  if (status_.state != kStateOffsetReq || m.size() < 28 || get_u32(m, 16) != status_.image_id ||
      get_u32(m, 20) != status_.offset || get_u32(m, 24) != status_.fragment_len) {
    ++status_.stale_answers;
    return;
  }
  size_t data_len = m.size() - 28;
  if (data_len != status_.fragment_len) {
    reject(fd, "fragment of " + std::to_string(data_len) + " bytes, asked for " + std::to_string(status_.fragment_len),
           false);
    return;
  }
  if (!flash_.write(status_.image_id, status_.offset, m.data() + 28, data_len)) {
    reject(fd, "flash write failed", false);
    return;
  }
  consecutive_bad_ = 0;
  awaiting_ = false;
  ++status_.fragments;
  status_.session_bytes += data_len;
  if (config_.on_fragment) {
    config_.on_fragment({status_.image_id, status_.offset, static_cast<uint32_t>(data_len), asked_at_, received_at_});
  }
  if (config_.write_delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(config_.write_delay_ms));
  status_.offset += static_cast<uint32_t>(data_len);
  bool image_done = status_.offset >= status_.image_size;
  if (!image_done) status_.fragment_len = std::min(config_.fragment_size, status_.image_size - status_.offset);

  while (!drop_at_.empty() && drop_at_.front() < status_.fragments) drop_at_.erase(drop_at_.begin());
  if (!drop_at_.empty() && drop_at_.front() == status_.fragments) {
    drop_at_.erase(drop_at_.begin());
    if (image_done) start_image(image_index_ + 1);
    ++status_.drops;
    log_.add("dfu", "fault: channel dropped after fragment " + std::to_string(status_.fragments));
    hang_up(fd);
    return;
  }
  if (image_done) {
    finish_image(fd);
  } else {
    ask(fd);
  }
}

void DfuCoprocessor::finish_image(int fd) {
  send(fd, make_dfu_message(kImgUpdtEndReq, {status_.image_id}));
  start_image(image_index_ + 1);
  ask(fd);
}

void DfuCoprocessor::on_tick() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!awaiting_ || std::chrono::steady_clock::now() < deadline_) return;
  int fd = newest_connection();
  if (fd < 0) {
    awaiting_ = false;
    return;
  }
  ++status_.resends;
  log_.add("dfu", "no answer: asking again");
  ask(fd);
}

}  // namespace marlo::sim
