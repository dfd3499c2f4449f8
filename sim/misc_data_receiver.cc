#include "sim/misc_data_receiver.h"

#include <cerrno>
#include <utility>

#include "common/crc32.h"
#include "sim/device_root.h"

namespace marlo::sim {

namespace {
constexpr size_t kHeader = 16;
enum Kind : uint32_t { kStart = 0, kMore = 1, kLast = 2, kCrc = 4, kFinish = 5 };
}  // namespace

MiscDataReceiver::MiscDataReceiver(const std::string& root, EventLog& log, uint32_t max_payload)
    : ChannelServer(root + "/dev/glink_pkt_marlo_custom_data"), root_(root), log_(log), max_payload_(max_payload) {}

MiscDataReceiver::~MiscDataReceiver() { stop(); }

MiscStatus MiscDataReceiver::status() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

void MiscDataReceiver::on_open(int) {
  std::lock_guard<std::mutex> lock(mutex_);
  started_ = data_complete_ = false;
  verified_.clear();
}

void MiscDataReceiver::set_packet_hook(PacketHook hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

void MiscDataReceiver::on_packet(int fd, const Bytes& p) {
  int32_t result;
  int packets;
  PacketHook hook;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    packets = ++status_.packets;
    result = handle(p);
    if (result != 0) ++status_.rejected;
    hook = hook_;
  }
  if (hook && !hook(packets)) {
    hang_up(fd);
    return;
  }
  Bytes answer(p.begin(), p.begin() + static_cast<long>(std::min(p.size(), kHeader)));
  answer.resize(kHeader, 0);
  append_u32(answer, static_cast<uint32_t>(result));
  append_u32(answer, max_payload_);
  send(fd, answer);
}

int32_t MiscDataReceiver::problem(const std::string& text, int32_t status) {
  log_.add("misc", "rejected: " + text);
  if (status_.problems.size() < 1000) status_.problems.push_back(text);
  return status;
}

int32_t MiscDataReceiver::handle(const Bytes& p) {
  if (p.size() < kHeader) return problem("packet of " + std::to_string(p.size()) + " bytes", -EINVAL);
  uint32_t kind = get_u32(p, 0);
  uint32_t type = get_u32(p, 4);
  uint32_t length = get_u32(p, 8);
  uint32_t seq = get_u32(p, 12);
  switch (kind) {
    case kStart:
      if (p.size() != kHeader) return problem("start packet of " + std::to_string(p.size()) + " bytes", -EINVAL);
      if (type > 0xFFFF) return problem("resource type " + std::to_string(type), -EINVAL);
      started_ = true;
      data_complete_ = false;
      type_ = static_cast<uint16_t>(type);
      total_ = length;
      next_seq_ = 1;
      data_.clear();
      log_.add("misc", "resource type " + std::to_string(type) + ": " + std::to_string(length) + " bytes");
      return 0;
    case kMore:
    case kLast: {
      if (!started_ || data_complete_ || type != type_) return problem("data packet outside a resource", -EPROTO);
      if (p.size() > max_payload_) {
        return problem(
            "packet of " + std::to_string(p.size()) + " bytes above MAX_PAYLOAD_SIZE " + std::to_string(max_payload_),
            -EMSGSIZE);
      }
      if (length != p.size() - kHeader) return problem("data length field does not match the packet", -EINVAL);
      if (seq != next_seq_)
        return problem("sequence " + std::to_string(seq) + ", expected " + std::to_string(next_seq_), -EPROTO);
      if (length > total_ - data_.size()) return problem("more data than the start packet announced", -EOVERFLOW);
      data_.insert(data_.end(), p.begin() + kHeader, p.end());
      ++next_seq_;
      data_complete_ = kind == kLast;
      return 0;
    }
    case kCrc: {
      if (!started_ || type != type_ || p.size() != kHeader + 4 || length != 4)
        return problem("malformed CRC packet", -EINVAL);
      if (!data_complete_ || data_.size() != total_) {
        return problem("CRC before all " + std::to_string(total_) + " bytes arrived", -EPROTO);
      }
      uint32_t crc = crc32(data_.data(), data_.size());
      started_ = false;
      if (crc != get_u32(p, kHeader)) return problem("checksum mismatch for type " + std::to_string(type), -EBADMSG);
      verified_[type_] = data_;
      return 0;
    }
    case kFinish:
      if (p.size() != kHeader) return problem("malformed finish packet", -EINVAL);
      ++status_.finishes;
      for (const auto& [t, bytes] : verified_) {
        status_.stored[t] = bytes;
        write_text(root_ + "/sim/misc/type_" + std::to_string(t) + ".bin", std::string(bytes.begin(), bytes.end()));
      }
      log_.add("misc", "finish: " + std::to_string(verified_.size()) + " resource(s) stored");
      verified_.clear();
      return 0;
    default: return problem("packet kind " + std::to_string(kind), -EINVAL);
  }
}

}  // namespace marlo::sim
