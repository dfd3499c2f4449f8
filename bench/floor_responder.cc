// marlo-floor: the least a host side can do per DFU request and still do
// what the system requires of the daemon. It is started like the daemon (the
// same virtual device, MARLO_ROOT, MARLO_LOG_FILE, standard error on
// /dev/null) and goes through the same platform calls and the same Android
// log backend. Per request it polls the wake-up pipe and the channel, reads
// the packet with its length framing, takes and gives back the wakelock (one
// write to each wakelock file), builds the answer with its CRC-32 in one
// reused buffer, writes it, and emits the same number of log entries, with
// the same texts, as the daemon at its production level. It answers from
// images read before the session starts (MARLO_ROOT/sim/floor/<image id>),
// like the minimal responder, and ends after SESSION_END_REQ.
//
// When MARLO_ROOT/sim/floor-misc exists it pushes the misc-data packets
// found there instead (in the order of their names), as the daemon sends
// them: per packet the same log entries, the wakelock held from the write to
// the answer (one write to each wakelock file), the write, and the 24-byte
// answer read after a poll.
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <android/log.h>

#include "common/crc32.h"
#include "common/le32.h"
#include "platform/os.h"

namespace {

constexpr const char* kTag = "marlo_fw_updater";
constexpr const char* kLockName = "MARLODAEMON_WAKEUP";
constexpr uint32_t kMagic = 0x0A0B0C0D;
constexpr size_t kHeader = 16;
constexpr size_t kRxSize = 44;  // the most of a request that is looked at
constexpr uint32_t kMaxPacket = 1u << 20;
enum : uint32_t {
  kMgUpdtReq = 1,
  kImgInfoReq = 3,
  kImgInfoResp = 4,
  kImgOffsetReq = 5,
  kImgOffsetResp = 6,
  kSessionEndReq = 11,
  kSessionEndResp = 12
};

// One entry as the daemon's statements make it: "function:line, text".
#define FLOOR_LOG(prio, function, line, fmt, ...) \
  __android_log_print(ANDROID_LOG_##prio, kTag, "%s:%d, " fmt, function, line, ##__VA_ARGS__)

unsigned long long address_of(const void* p) { return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)); }

std::map<uint32_t, std::vector<uint8_t>> load_images(const std::string& dir) {
  std::map<uint32_t, std::vector<uint8_t>> images;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    std::vector<uint8_t> bytes(std::filesystem::file_size(file.path()));
    std::ifstream(file.path(), std::ios::binary)
        .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    images[static_cast<uint32_t>(std::stoul(file.path().filename().string()))] = std::move(bytes);
  }
  return images;
}

class Floor {
 public:
  explicit Floor(std::map<uint32_t, std::vector<uint8_t>> images) : images_(std::move(images)) {
    out_.reserve(kMaxPacket);
  }

  bool open() {
    lock_fd_ = platform::open("/sys/power/wake_lock", O_RDWR | O_CLOEXEC);
    unlock_fd_ = platform::open("/sys/power/wake_unlock", O_RDWR | O_CLOEXEC);
    channel_ = platform::open("/dev/glink_pkt_marlo_dfu", O_RDWR | O_CLOEXEC);
    return channel_ >= 0 && platform::pipe(pipe_) == 0;
  }

  // Answers until SESSION_END_REQ has been answered; false when the channel fails first.
  bool serve() {
    uint8_t words[20] = {};
    marlo::put_le32(words, 1);
    std::memcpy(words + 12, "IMG UPDT", 8);
    if (!send(kMgUpdtReq, words, sizeof(words), nullptr, 0)) return false;
    for (;;) {
      struct pollfd fds[2] = {{pipe_[0], POLLIN, 0}, {channel_, POLLIN | POLLHUP, 0}};
      FLOOR_LOG(DEBUG, "glink_thread_routine", 237, "GLINK waiting on poll wakeup_pipe %d glink_fd %d", fds[0].fd,
                fds[1].fd);
      if (platform::poll(fds, 2, -1) < 1 || !(fds[1].revents & POLLIN)) return false;
      FLOOR_LOG(DEBUG, "glink_thread_routine", 262, "GLINK_int received POLLIN event");
      const int got = read_packet();
      if (got < static_cast<int>(kHeader)) return false;
      FLOOR_LOG(DEBUG, "glink_thread_routine", 266, "GLINK_int waiting for _s_glink_read_mutex");
      FLOOR_LOG(DEBUG, "glink_thread_routine", 267, "calling glink response handler: ");
      FLOOR_LOG(DEBUG, "glink_response_handler", 255, "GLINK_int conn = 0x%llx received indication", address_of(this));
      FLOOR_LOG(DEBUG, "glink_response_handler", 260, "buffer_len %zu", static_cast<size_t>(got));
      FLOOR_LOG(DEBUG, "glink_response_handler", 276, "acquiring wakelock");
      if (platform::write(lock_fd_, kLockName, std::strlen(kLockName) + 1) >= 1) {
        FLOOR_LOG(VERBOSE, "acquire", 108, "sucess wakelock acquire:%s", kLockName);
      }
      const bool more = answer();
      FLOOR_LOG(VERBOSE, "glink_response_handler", 282, "GLINK_int triggered event callback, got value %d", 0);
      FLOOR_LOG(DEBUG, "glink_response_handler", 291, "releasing wakelock");
      if (platform::write(unlock_fd_, kLockName, std::strlen(kLockName) + 1) >= 1) {
        FLOOR_LOG(VERBOSE, "release", 123, "sucess release %s wakelock", kLockName);
      }
      if (!more) return true;
    }
  }

 private:
  // One packet into rx_: the first read brings the header, whose length word
  // says how much of the packet is still to come.
  int read_packet() {
    FLOOR_LOG(DEBUG, "glink_read", 75, "GLINK_int glink_read fd = %d buf_len = %zu", channel_, sizeof(rx_));
    size_t total = 0;
    size_t want = sizeof(rx_);
    do {
      const ssize_t n = platform::read(channel_, rx_ + total, sizeof(rx_) - total);
      if (n <= 0) return -1;
      FLOOR_LOG(DEBUG, "glink_read", 113, "GLINK_int partial read bytes = %d", static_cast<int>(n));
      if (total == 0) {
        // A header-only packet has nothing more to come.
        want = n >= 17 ? marlo::get_le32(rx_ + 8) : static_cast<size_t>(n);
        FLOOR_LOG(DEBUG, "get_size_from_header", 59, "GLINK_int pkt size to be read = %d", static_cast<int>(want));
        if (want > sizeof(rx_)) want = sizeof(rx_);  // the rest is not looked at
      }
      total += static_cast<size_t>(n);
    } while (total < want);
    FLOOR_LOG(DEBUG, "glink_read", 132, "GLINK_int complete read bytes = %d", static_cast<int>(total));
    return static_cast<int>(total);
  }

  // Answers the request in rx_; false after the session's end.
  bool answer() {
    const uint32_t id = marlo::get_le32(rx_);
    const uint32_t image_id = marlo::get_le32(rx_ + 16);
    FLOOR_LOG(DEBUG, "conn_res_event_cb", 179, "received res or event");
    FLOOR_LOG(DEBUG, "conn_res_event_cb", 197, "GLINK_int received %s ",
              id == kImgOffsetReq ? "IMG_OFFSET_REQ"
              : id == kImgInfoReq ? "IMG_INFO_REQ"
                                  : "SESSION_END_REQ");
    auto image = images_.find(image_id);
    const std::vector<uint8_t>* data = image != images_.end() ? &image->second : nullptr;
    const uint32_t size = data != nullptr ? static_cast<uint32_t>(data->size()) : 0;
    if (id == kImgOffsetReq) {
      const uint32_t offset = marlo::get_le32(rx_ + 20);
      const uint32_t length = marlo::get_le32(rx_ + 24);
      FLOOR_LOG(DEBUG, "sendmarloImageOffsetRes", 262, "sendmarloImageOffsetRes ID=%d offset=%d fragment_len=%d",
                image_id, offset, length);
      const bool inside = offset < size && length <= kMaxPacket - kHeader - 12 && length <= size - offset;
      send(kImgOffsetResp, rx_ + 16, 12, inside ? data->data() + offset : nullptr, inside ? length : 0);
      return true;
    }
    if (id == kImgInfoReq) {
      uint8_t words[12] = {};
      marlo::put_le32(words, image_id);
      marlo::put_le32(words + 4, size);
      send(kImgInfoResp, words, sizeof(words), nullptr, 0);
      return true;
    }
    const uint8_t words[12] = {};
    send(kSessionEndResp, words, sizeof(words), nullptr, 0);
    return id != kSessionEndReq;
  }

  // Header, fixed words and data in out_, the CRC over all of it, one write.
  bool send(uint32_t command, const uint8_t* words, size_t word_bytes, const uint8_t* data, size_t length) {
    FLOOR_LOG(DEBUG, "send_aon_request", 308, "send_aon_request");
    out_.resize(kHeader + word_bytes + length);
    uint8_t* p = out_.data();
    marlo::put_le32(p, command);
    marlo::put_le32(p + 4, kMagic);
    marlo::put_le32(p + 8, static_cast<uint32_t>(out_.size()));
    marlo::put_le32(p + 12, 0);
    std::memcpy(p + kHeader, words, word_bytes);
    if (length != 0) std::memcpy(p + kHeader + word_bytes, data, length);
    const uint32_t crc = marlo::crc32(p, out_.size());
    FLOOR_LOG(DEBUG, "send_aon_request", 321, "send_aon_request %x", crc);
    marlo::put_le32(p + 12, crc);
    FLOOR_LOG(DEBUG, "send_request", 199, "GLINK_int conn = 0x%llx is sending request", address_of(this));
    FLOOR_LOG(DEBUG, "glink_write", 137,
              "GLINK_int conn = 0x%llx write fd = %d buf_len = %zu, waiting for _s_glink_read_mutex", address_of(this),
              channel_, out_.size());
    FLOOR_LOG(DEBUG, "glink_write", 145, "acquiring wakelock");
    const ssize_t n = platform::write(channel_, p, out_.size());
    if (n != static_cast<ssize_t>(out_.size())) return false;
    FLOOR_LOG(DEBUG, "glink_write", 158, "GLINK_int conn = 0x%llx partial bytes written= %d", address_of(this),
              static_cast<int>(n));
    FLOOR_LOG(INFO, "glink_write", 184, "GLINK_int conn = 0x%llx complete bytes written= %d retries %d",
              address_of(this), static_cast<int>(n), 0);
    FLOOR_LOG(DEBUG, "glink_write", 188, "releasing wakelock");
    return true;
  }

  std::map<uint32_t, std::vector<uint8_t>> images_;
  std::vector<uint8_t> out_;
  uint8_t rx_[kRxSize] = {};
  int lock_fd_ = -1;
  int unlock_fd_ = -1;
  int channel_ = -1;
  int pipe_[2] = {-1, -1};
};

// The misc-data push of the floor; false when a packet is not accepted.
bool push_misc(const std::string& dir) {
  std::vector<std::filesystem::path> names;
  for (const auto& file : std::filesystem::directory_iterator(dir)) names.push_back(file.path());
  std::sort(names.begin(), names.end());
  const int lock_fd = platform::open("/sys/power/wake_lock", O_RDWR | O_CLOEXEC);
  const int unlock_fd = platform::open("/sys/power/wake_unlock", O_RDWR | O_CLOEXEC);
  const int channel = platform::open("/dev/glink_pkt_marlo_custom_data", O_RDWR | O_CLOEXEC);
  if (channel < 0) return false;
  const unsigned long long self = address_of(&names);
  std::vector<uint8_t> packet;
  int sequence = 0;
  for (const auto& name : names) {
    packet.resize(std::filesystem::file_size(name));
    std::ifstream(name, std::ios::binary)
        .read(reinterpret_cast<char*>(packet.data()), static_cast<std::streamsize>(packet.size()));
    FLOOR_LOG(DEBUG, "prepare_send_data_buffer", 172, "%s %d Buffer with payload size :%d ", "prepare_send_data_buffer",
              ++sequence, static_cast<int>(packet.size() - 16));
    FLOOR_LOG(DEBUG, "send_data_to_aon", 218, "send_data_to_aon");
    FLOOR_LOG(DEBUG, "send_request", 199, "GLINK_int conn = 0x%llx is sending request", self);
    FLOOR_LOG(DEBUG, "glink_write", 137,
              "GLINK_int conn = 0x%llx write fd = %d buf_len = %zu, waiting for _s_glink_read_mutex", self, channel,
              packet.size());
    FLOOR_LOG(DEBUG, "glink_write", 145, "acquiring wakelock");
    if (platform::write(lock_fd, kLockName, std::strlen(kLockName) + 1) >= 1) {
      FLOOR_LOG(VERBOSE, "acquire", 108, "sucess wakelock acquire:%s", kLockName);
    }
    const ssize_t n = platform::write(channel, packet.data(), packet.size());
    if (n != static_cast<ssize_t>(packet.size())) return false;
    FLOOR_LOG(DEBUG, "glink_write", 158, "GLINK_int conn = 0x%llx partial bytes written= %d", self,
              static_cast<int>(n));
    FLOOR_LOG(INFO, "glink_write", 184, "GLINK_int conn = 0x%llx complete bytes written= %d retries %d", self,
              static_cast<int>(n), 0);
    FLOOR_LOG(DEBUG, "glink_write", 188, "releasing wakelock");
    FLOOR_LOG(VERBOSE, "release", 123, "sucess release %s wakelock", kLockName);
    FLOOR_LOG(DEBUG, "read_response", 226, "acquiring wakelock");
    FLOOR_LOG(VERBOSE, "acquire", 108, "sucess wakelock acquire:%s", kLockName);
    struct pollfd entry = {channel, POLLIN | POLLHUP, 0};
    uint8_t answer[24] = {};
    size_t got = 0;
    while (got < sizeof(answer)) {
      if (platform::poll(&entry, 1, 2000) < 1 || !(entry.revents & POLLIN)) return false;
      const ssize_t r = platform::read(channel, answer + got, sizeof(answer) - got);
      if (r <= 0) return false;
      got += static_cast<size_t>(r);
    }
    FLOOR_LOG(DEBUG, "read_response", 248, "releasing wakelock");
    if (platform::write(unlock_fd, kLockName, std::strlen(kLockName) + 1) >= 1) {
      FLOOR_LOG(VERBOSE, "release", 123, "sucess release %s wakelock", kLockName);
    }
    if (marlo::get_le32(answer + 16) != 0) return false;
  }
  return true;
}

}  // namespace

int main() {
  const char* root = std::getenv("MARLO_ROOT");
  if (root == nullptr) {
    std::fprintf(stderr, "marlo-floor: MARLO_ROOT is not set\n");
    return 2;
  }
  const std::string misc_dir = std::string(root) + "/sim/floor-misc";
  if (std::filesystem::is_directory(misc_dir)) return push_misc(misc_dir) ? 0 : 1;
  Floor floor(load_images(std::string(root) + "/sim/floor"));
  if (!floor.open()) {
    std::fprintf(stderr, "marlo-floor: cannot open the DFU channel\n");
    return 1;
  }
  return floor.serve() ? 0 : 1;
}
