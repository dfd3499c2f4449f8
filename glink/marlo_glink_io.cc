// Byte I/O of the packet-channel transport: framed reads of incoming packets,
// request writes with retries, synchronous response reads and delivery of a
// received packet to the data callback.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <utils/SystemClock.h>

#include "comhandler/client_wakelock.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "platform/os.h"

namespace {

constexpr int MAX_GLINK_READ_RETRIES = 3;
constexpr int MAX_GLINK_WRITE_RETRIES = 100;
constexpr useconds_t kWriteRetryDelayUs = 5000;
constexpr int64_t kSlowWriteNs = 2000000000LL;
constexpr int64_t kNsPerSecond = 1000000000LL;
constexpr int64_t kNsPerMillisecond = 1000000LL;

// Where a channel's header carries the packet length, and how many bytes the
// first read must have returned for it to be there.
struct length_field {
  const char* channel;
  size_t offset;
  int threshold;
};
constexpr length_field kLengthFields[] = {
    {"glink_pkt_marlo_dfu", 8, 17},
    {"glink_pkt_marlo_rma", 4, 13},
};
// Channel names are compared only when they have this length.
constexpr size_t kFramedNameLength = 19;

unsigned long long address_of(const void* object) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(object));
}

}  // namespace

unsigned int marlo_glink::get_size_from_header(int bytes_received, std::vector<uint8_t>& buffer) {
  unsigned int size = 0;
  if (_chnl_name.size() == kFramedNameLength) {
    for (const length_field& field : kLengthFields) {
      if (_chnl_name != field.channel || bytes_received < field.threshold) continue;
      // The threshold lies past the field, and bytes_received never exceeds
      // the buffer, so the four bytes are inside what was received.
      uint32_t value;
      std::memcpy(&value, buffer.data() + field.offset, sizeof(value));
      size = value;
      if (size <= kMaxPacketSize) buffer.resize(size);
    }
  }
  MARLO_LOGD("GLINK_int pkt size to be read = %d", size);
  return size;
}

// Waits, at most the poll time-out, for the rest of a packet whose header
// announced more than has arrived: 0 when more can be read, a negative error
// when the channel hung up or nothing came.
int marlo_glink::wait_for_rest_of_packet(int fd) {
  struct pollfd entry = {fd, POLLIN, 0};
  const int ready = platform::poll(&entry, 1, static_cast<int>(_poll_timeout_s * 1000));
  if (ready < 0) return -errno;
  if (entry.revents & POLLIN) return 0;
  return (entry.revents & POLLHUP) ? -EPIPE : -ETIMEDOUT;
}

int marlo_glink::glink_read(int fd, std::vector<uint8_t>& buffer, unsigned int len) {
  MARLO_LOGD("GLINK_int glink_read fd = %d buf_len = %zu", fd, buffer.size());
  if (len == 0) return 0;
  unsigned int want = len;
  size_t total = 0;
  int eagain_count = 0;
  bool first = true;
  while (total < want) {
    if (!first) {
      // The header asked for more than the packet brought so far. A short
      // packet whose rest never comes must not stall the reader for ever.
      int waited = wait_for_rest_of_packet(fd);
      if (waited < 0) {
        ++g_glink_err_cnt;
        MARLO_LOGE("GLINK_int read of the rest of a %u-byte packet failed with errno = %d after %zu bytes", want,
                   -waited, total);
        return waited;
      }
    }
    // Each read asks for the whole packet length again, limited to the room
    // left in the buffer: nothing is ever written past its current size.
    const size_t ask = std::min<size_t>(want, buffer.size() - total);
    const ssize_t got = platform::read(fd, buffer.data() + total, ask);
    if (got == -1) {
      const int err = errno;
      if (err == EAGAIN) {
        MARLO_LOGE("GLINK_int read EAGAIN has occured on fd = %d", fd);
        if (++eagain_count >= MAX_GLINK_READ_RETRIES) {
          ++g_glink_err_cnt;
          MARLO_LOGE("GLINK_int read MAX_GLINK_READ_RETRIES = %d has finished & g_glink_err_cnt = %d",
                     MAX_GLINK_READ_RETRIES, g_glink_err_cnt.load());
          return -EAGAIN;
        }
        continue;
      }
      ++g_glink_err_cnt;
      MARLO_LOGE("GLINK_int read failed with errno = %d", err);
      return -err;
    }
    MARLO_LOGD("GLINK_int partial read bytes = %d", static_cast<int>(got));
    if (got == 0 && !first) {
      // The channel closed in the middle of a packet.
      ++g_glink_err_cnt;
      MARLO_LOGE("GLINK_int channel closed after %zu bytes of a %u-byte packet", total, want);
      return -EPIPE;
    }
    total += static_cast<size_t>(got);
    if (first) {
      first = false;
      want = get_size_from_header(static_cast<int>(total), buffer);
      if (want > kMaxPacketSize) {
        ++g_glink_err_cnt;
        MARLO_LOGE("GLINK_int packet length %u is above the maximum packet size %u, read failed", want, kMaxPacketSize);
        return -EMSGSIZE;
      }
    }
  }
  MARLO_LOGD("GLINK_int complete read bytes = %d", static_cast<int>(total));
  return static_cast<int>(total);
}

int marlo_glink::glink_write(int fd, unsigned char* buf, unsigned int len) {
  MARLO_LOGD("GLINK_int conn = 0x%llx write fd = %d buf_len = %zu, waiting for _s_glink_read_mutex", address_of(this),
             fd, static_cast<size_t>(len));
  client_wakelock::reference wakelock_ref;
  int written_total = 0;
  int retries = 0;
  int result = 0;  // the last write's count, or the negated errno that ended the write
  {
    platform::lock_guard lock(_s_glink_read_mutex);
    if (!_s_chnl_fd.ok() && _s_chnl_err == 0) {
      MARLO_LOGE("GLINK_int conn = 0x%llx write is not permitted as_s_chnl_fd is -1", address_of(this));
      return 0;
    }
    if (_wakelock != nullptr) {
      MARLO_LOGD("acquiring wakelock");
      wakelock_ref = client_wakelock::reference(_wakelock);
    }
    // `fd` is the number the caller saw, for the log; the request goes to the
    // descriptor open now (after a failed open none, refused as before).
    const int chnl_fd = _s_chnl_fd.get();
    const unsigned char* next = buf;
    unsigned int remaining = len;
    while (remaining > 0) {
      const ssize_t n = platform::write(chnl_fd, next, remaining);
      if (n >= 0) {
        result = static_cast<int>(n);
        if (n == 0) break;
        MARLO_LOGD("GLINK_int conn = 0x%llx partial bytes written= %d", address_of(this), result);
        next += n;
        written_total += result;
        remaining -= static_cast<unsigned int>(n);
        continue;
      }
      const int err = errno;
      result = -err;
      if (err != EBUSY && err != EAGAIN) {
        ++g_glink_err_cnt;
        MARLO_LOGE("GLINK_int conn = 0x%llx write has failed with errno = %d & g_glink_err_cnt = %d", address_of(this),
                   err, g_glink_err_cnt.load());
        break;
      }
      MARLO_LOGE("GLINK conn = 0x%llx write failed with errno = %d", address_of(this), err);
      if (++retries >= MAX_GLINK_WRITE_RETRIES) {
        ++g_glink_err_cnt;
        MARLO_LOGE(
            "GLINK_int conn = 0x%llx write MAX_GLINK_WRITE_RETRIES = %d has finished on fd = %d & g_glink_err_cnt = "
            "%d",
            address_of(this), MAX_GLINK_WRITE_RETRIES, fd, g_glink_err_cnt.load());
        break;
      }
      platform::usleep(kWriteRetryDelayUs);
    }
  }
  if (result >= 0) {
    MARLO_LOGI("GLINK_int conn = 0x%llx complete bytes written= %d retries %d", address_of(this), written_total,
               retries);
  }
  if (wakelock_ref) {
    MARLO_LOGD("releasing wakelock");
    wakelock_ref.release();
  }
  return result;
}

int marlo_glink::send_request(unsigned char* buf, unsigned int len) {
  if (_reconnecting) {
    MARLO_LOGE("GLINK_int conn = 0x%llx is reconnecting, cannot send request", address_of(this));
    return -1;
  }
  MARLO_LOGD("GLINK_int conn = 0x%llx is sending request", address_of(this));
  const int64_t start = android::elapsedRealtimeNano();
  const int result = glink_write(_chnl_fd_seen, buf, len);
  if (result < 0) {
    MARLO_LOGE("GLINK_int conn = 0x%llx glink_write has failed", address_of(this));
    glink_error_handler(result);
  }
  const int64_t elapsed = android::elapsedRealtimeNano() - start;
  if (elapsed > kSlowWriteNs) {
    MARLO_LOGI("GLINK_int conn = 0x%llx time taken to complete glink_write is %lf secs", address_of(this),
               static_cast<double>(elapsed / kNsPerSecond));
  }
  return result;
}

int marlo_glink::glink_poll(int fd) { return glink_poll(fd, static_cast<int>(_poll_timeout_s * 1000)); }

int marlo_glink::glink_poll(int fd, int timeout_ms) {
  struct pollfd entry = {fd, POLLIN | POLLHUP, 0};
  if (platform::poll(&entry, 1, timeout_ms) < 1) return -1;
  if (entry.revents & POLLIN) return 0;
  if (entry.revents & POLLHUP) MARLO_LOGE("%s: SSR detected", "glink_poll");
  return -1;
}

int marlo_glink::read_response(unsigned char* buf, unsigned int len) {
  const int fd = _chnl_fd_seen;
  if (fd < 0) return -1;
  client_wakelock::reference wakelock_ref;
  if (_wakelock != nullptr) {
    MARLO_LOGD("acquiring wakelock");
    wakelock_ref = client_wakelock::reference(_wakelock);
  }
  // One poll time-out bounds the whole answer, not only its first bytes: a
  // co-processor that stops half-way through fails the read as one that
  // never answered does.
  const int64_t deadline = android::elapsedRealtimeNano() + static_cast<int64_t>(_poll_timeout_s) * kNsPerSecond;
  int result = 0;
  // An EAGAIN's -1 is counted into `received` as an unsigned value: on the
  // first read it wraps to the largest count and ends the read as done.
  unsigned int received = 0;
  while (result == 0 && received < len) {
    const int64_t left_ns = deadline - android::elapsedRealtimeNano();
    if (left_ns <= 0 || glink_poll(fd, static_cast<int>((left_ns + kNsPerMillisecond - 1) / kNsPerMillisecond)) != 0) {
      result = -1;
      break;
    }
    const ssize_t got = platform::read(fd, buf + received, len - received);
    if (got < 0 && errno != EAGAIN) {
      MARLO_LOGE("%s: Read error: %s, rc %d", "read_response", strerror(errno), static_cast<int>(got));
      result = -1;
    } else if (got == 0) {
      // End of stream: the co-processor's end of the channel is closed and
      // every further read returns 0 at once. The co-processor never sends
      // an empty packet, so a 0 is never taken for one.
      MARLO_LOGE("%s: Zero length packet received or hardware connection went off", "read_response");
      result = -1;
    } else {
      received += static_cast<unsigned int>(got);
    }
  }
  if (wakelock_ref) {
    MARLO_LOGD("releasing wakelock");
    wakelock_ref.release();
  }
  return result;
}

void marlo_glink::glink_response_handler(std::vector<uint8_t> packet) {
  MARLO_LOGD("GLINK_int conn = 0x%llx received indication", address_of(this));
  if (_closing) {
    MARLO_LOGD("GLINK_int conn = 0x%llx indication is coming while connection is being closed", address_of(this));
    return;
  }
  MARLO_LOGD("buffer_len %zu", packet.size());
  std::shared_ptr<const std::vector<uint8_t>> shared;
  try {
    shared = std::make_shared<const std::vector<uint8_t>>(std::move(packet));
  } catch (const std::bad_alloc&) {
    MARLO_LOGD("memory allocation failed for _ind_buf");
    return;
  }
  {
    platform::lock_guard lock(_ind_buf_mutex);
    _ind_buf = shared;
  }
  // Locals only after the callback: it may delete this object.
  const std::shared_ptr<reader_life> life = _reader_life;
  client_wakelock::reference wakelock_ref;
  if (_wakelock != nullptr) {
    MARLO_LOGD("acquiring wakelock");
    wakelock_ref = client_wakelock::reference(_wakelock);
  }
  glink_data_cb data_cb = data_callback();
  if (data_cb) {
    const int result = trigger_event_cb(data_cb);
    MARLO_LOGV("GLINK_int triggered event callback, got value %d", result);
  }
  if (!life || !life->stop) {
    // A caller still holding the packet keeps it alive; it is only no
    // longer the one being delivered.
    platform::lock_guard lock(_ind_buf_mutex);
    _ind_buf.reset();
  }
  if (wakelock_ref) {
    MARLO_LOGD("releasing wakelock");
    wakelock_ref.release();
  }
}
