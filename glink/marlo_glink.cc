// Connection, reader thread, error counting and reconnection of the
// packet-channel transport.
#include "glink/marlo_glink.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

#include "comhandler/client_wakelock.h"
#include "daemon/marlo_deamon_log.h"
#include "platform/os.h"

namespace {

constexpr int kOpenAttempts = 3;
// The error value with which the reader reports a hang-up (POLLHUP).
constexpr int kHangUpError = POLLHUP;
// Wake-up bytes: 'd' ends the reader; any other byte only ends its pass, so
// that it polls the channel descriptor afresh.
constexpr char kStopReader = 'd';
constexpr char kReloadChannel = 'c';

// A channel that hangs up again before it has brought a single packet is
// reopened only after a delay, doubled at each such hang-up up to a limit:
// a peer that closes every channel at once gets a few reopens a second at
// first and one every few seconds after, never a busy loop. The first
// hang-up after a packet (an ordinary co-processor restart) is reopened at
// once.
constexpr uint32_t kFirstReopenDelayUs = 250000;
constexpr uint32_t kLongestReopenDelayUs = 4000000;

uint32_t next_reopen_delay(uint32_t delay_us) {
  if (delay_us == 0) return kFirstReopenDelayUs;
  return delay_us >= kLongestReopenDelayUs / 2 ? kLongestReopenDelayUs : delay_us * 2;
}

// The first descriptor above standard input, output and error.
constexpr int kFirstFreeDescriptor = 3;

// A process started with standard input closed is handed descriptor 0 by
// its first open. A channel is never kept there, where it would be taken for
// standard input: it is moved above the standard descriptors. The new
// descriptor, or none with errno set when it cannot be moved.
platform::unique_fd move_above_standard_descriptors(platform::unique_fd fd) {
  platform::unique_fd moved(platform::fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstFreeDescriptor));
  const int err = errno;
  const int old_fd = fd.get();
  fd.reset();
  if (!moved.ok()) {
    MARLO_LOGE("GLINK_int could not move descriptor %d above %d, errno = %d", old_fd, kFirstFreeDescriptor - 1, err);
    errno = err;
    return moved;
  }
  MARLO_LOGI("GLINK_int descriptor %d moved to %d", old_fd, moved.get());
  return moved;
}

unsigned long long address_of(const void* object) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(object));
}

}  // namespace

marlo_glink::marlo_glink(glink_conn_config config)
    : _chnl_name(config.channel_name != nullptr ? config.channel_name : ""), _read_size(config.read_size) {
  MARLO_LOGD("GLINK_int conn = 0x%llx constructor", address_of(this));
  _wakelock = client_wakelock::get_instance();
}

marlo_glink::~marlo_glink() {
  MARLO_LOGI("GLINK_int conn = 0x%llx destructor", address_of(this));
  _closing = true;
  g_glink_err_cnt = 0;
  glink_disconnect(true);
}

int marlo_glink::connect_interface(bool start_reader) { return glink_connect(_chnl_name, start_reader); }

void marlo_glink::disconnect_interface() { glink_disconnect(true); }

int marlo_glink::register_cb(glink_data_cb data_cb, glink_error_cb error_cb) {
  MARLO_LOGV("GLINK_int %s start ", "register_cb");
  auto record = std::make_unique<glink_register_cb>(std::move(data_cb), std::move(error_cb));
  {
    // The replaced record is freed here; a callback already running holds
    // its own copy of the callable.
    platform::lock_guard lock(_callbacks_mutex);
    _callbacks = std::move(record);
  }
  MARLO_LOGV("GLINK_int %s completed ", "register_cb");
  return 0;
}

glink_data_cb marlo_glink::data_callback() {
  platform::lock_guard lock(_callbacks_mutex);
  return _callbacks ? _callbacks->data_cb : glink_data_cb{};
}

glink_error_cb marlo_glink::error_callback() {
  platform::lock_guard lock(_callbacks_mutex);
  return _callbacks ? _callbacks->error_cb : glink_error_cb{};
}

int marlo_glink::trigger_event_cb(const glink_data_cb& data_cb) {
  std::shared_ptr<const std::vector<uint8_t>> packet;
  {
    platform::lock_guard lock(_ind_buf_mutex);
    packet = _ind_buf;
  }
  if (!packet || packet->empty()) {
    MARLO_LOGE("GLINK_int buffer len is 0");
    return -1;
  }
  // The callback may write to its buffer, and the packet may be shared with
  // another caller: each call gets its own copy.
  const size_t length = packet->size();
  std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[length]);
  if (!copy) {
    MARLO_LOGE("GLINK_int memory allocation failed for a %zu-byte packet", length);
    return -1;
  }
  std::memcpy(copy.get(), packet->data(), length);
  data_cb(copy.get(), static_cast<uint32_t>(length));
  return 0;
}

platform::unique_fd marlo_glink::glink_open(const std::string& path, int* error) {
  int err = 0;
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    MARLO_LOGD("GLINK_int about to open glink channel on dev node = %s", path.c_str());
    platform::unique_fd fd(platform::open(path.c_str(), O_RDWR));
    if (fd.get() == 0) fd = move_above_standard_descriptors(std::move(fd));
    if (fd.get() >= 1) {
      MARLO_LOGD("GLINK_int glink open successful, fd = %d", fd.get());
      _reconnecting = false;
      *error = 0;
      return fd;
    }
    err = errno;
    MARLO_LOGE("GLINK_int open on dev node = %s failed with errno = %d", path.c_str(), err);
    platform::sleep(1);
  }
  *error = err;
  return platform::unique_fd();
}

int marlo_glink::glink_connect(const std::string& name, bool start_reader) {
  const std::string path = "/dev/" + name;
  MARLO_LOGD("GLINK_int glink_connect waiting for _s_glink_read_mutex");
  bool reconnecting = false;
  {
    platform::lock_guard lock(_s_glink_read_mutex);
    if (_s_chnl_fd.ok()) {
      MARLO_LOGI("GLINK_int channel is already opened");
      return -1;
    }
    _s_chnl_fd = glink_open(path, &_s_chnl_err);
    _chnl_fd_seen = _s_chnl_fd.ok() ? _s_chnl_fd.get() : -_s_chnl_err;
    if (_s_chnl_fd.ok()) {
      // Every caller passes the channel's own name; it is assigned only when
      // it differs, so that the reader thread's reads of it never meet a
      // write.
      if (name != _chnl_name) _chnl_name = name;
      if (start_reader) start_reader_thread();
      return 0;
    }
    MARLO_LOGE("GLINK_int glink_open failed");
    reconnecting = _reconnecting;
  }
  glink_error_cb error_cb = error_callback();
  if (error_cb && !reconnecting) {
    MARLO_LOGV("GLINK_int triggered error callback");
    // The callback may delete this object: nothing of it is touched after.
    error_cb(GLINK_OPEN_FAILED);
  }
  return -1;
}

void marlo_glink::start_reader_thread() {
  if (!_thread_started) {
    int pipe_fds[2];
    if (platform::pipe(pipe_fds) != 0) {
      // A reader that cannot be woken could never be joined: run without.
      MARLO_LOGE("GLINK_int wake-up pipe failed with errno = %d, no reader thread", errno);
      return;
    }
    _wakeup_pipe[0].reset(pipe_fds[0]);
    _wakeup_pipe[1].reset(pipe_fds[1]);
    _reader_life = std::make_shared<reader_life>();
    _reader_thread = std::thread(glink_thread_routine, this, _reader_life, _wakeup_pipe[0].get());
    _thread_started = true;
  } else if (std::this_thread::get_id() != _reader_thread.get_id()) {
    // A reader left waiting on the pipe alone (failed reopen) picks up the
    // new descriptor on its next pass.
    char byte = kReloadChannel;
    if (platform::write(_wakeup_pipe[1].get(), &byte, 1) != 1) {
      MARLO_LOGE("GLINK write err on wakup pipe rrrno = %d", errno);
    }
  }
}

void marlo_glink::stop_reader_thread() {
  if (_wakeup_pipe[1].ok()) {
    char byte = kStopReader;
    if (platform::write(_wakeup_pipe[1].get(), &byte, 1) != 1) {
      MARLO_LOGE("GLINK write err on wakup pipe rrrno = %d no way to join readthread", errno);
    }
  }
  if (_reader_thread.joinable()) {
    if (std::this_thread::get_id() == _reader_thread.get_id()) {
      // Called from a callback on the reader thread itself: it cannot join
      // itself, so it is let go and leaves as soon as the callback returns.
      MARLO_LOGI("GLINK_int conn = 0x%llx disconnect on the reader thread, detaching it", address_of(this));
      _reader_life->stop = true;
      _reader_thread.detach();
    } else {
      _reader_thread.join();
    }
  }
  _reader_life.reset();
  _thread_started = false;
  {
    // The reader is gone or let go: no packet is being delivered any more.
    platform::lock_guard lock(_ind_buf_mutex);
    _ind_buf.reset();
  }
  for (platform::unique_fd& end : _wakeup_pipe) end.reset();
}

void marlo_glink::glink_disconnect(bool join_reader) {
  MARLO_LOGI("glink_disconnect");
  if (join_reader) stop_reader_thread();
  // Under the write lock, so that no request is being written to the
  // descriptor while it is closed.
  platform::lock_guard lock(_s_glink_read_mutex);
  const int fd = _chnl_fd_seen.exchange(-1);
  _s_chnl_err = 0;
  // A channel that is not open is reported as a close would refuse it
  // (EBADF), as it has always been logged.
  const bool was_open = _s_chnl_fd.ok();
  if (!was_open || !_s_chnl_fd.close()) {
    MARLO_LOGE("GLINK_int close on _s_chnl_fd = %d failed with errno = %d", fd, was_open ? errno : EBADF);
  }
}

void marlo_glink::glink_thread_routine(marlo_glink* self, std::shared_ptr<reader_life> life, int wakeup_fd) {
  // The wait before the next reopen; 0 until the channel hangs up, and again
  // once a packet has come.
  uint32_t reopen_delay_us = 0;
  // A hang-up: the channel is closed and reopened, after the wait that
  // repeated hang-ups call for. False when the reader must leave.
  const auto hang_up = [&]() {
    if (!self->wait_before_reopen(wakeup_fd, reopen_delay_us)) return true;  // the next pass reads the pipe
    reopen_delay_us = next_reopen_delay(reopen_delay_us);
    self->glink_error_handler(kHangUpError);
    return !life->stop;
  };
  for (;;) {
    struct pollfd fds[2] = {
        {wakeup_fd, POLLIN, 0},
        {self->_chnl_fd_seen, POLLIN | POLLHUP, 0},
    };
    MARLO_LOGD("GLINK waiting on poll wakeup_pipe %d glink_fd %d", fds[0].fd, fds[1].fd);
    const int ready = platform::poll(fds, 2, -1);
    if (ready == 0) {
      MARLO_LOGE("GLINK_int poll time-out");
    } else if (ready < 0) {
      MARLO_LOGE("GLINK_int poll failed with errno = %d, g_glink_err_cnt = %d", errno, self->g_glink_err_cnt.load());
      self->glink_error_handler(-1);
      if (life->stop) return;
      continue;
    } else if (fds[0].revents & POLLIN) {
      char byte = 0;
      if (platform::read(fds[0].fd, &byte, 1) == 1 && byte == kStopReader) {
        MARLO_LOGD("GLINK explicitly requested thread close");
        MARLO_LOGD("GLINK thread exit");
        return;
      }
    } else if (!(fds[1].revents & POLLIN)) {
      if (fds[1].revents & POLLHUP) {
        MARLO_LOGE("GLINK_int POLLHUP event is received, AON CLIENT SSR occured");
        if (!hang_up()) return;
      } else {
        MARLO_LOGE("GLINK_int received unregistered pollevent = %d", fds[1].revents);
      }
    } else {
      MARLO_LOGD("GLINK_int received POLLIN event");
      std::vector<uint8_t> buffer(self->_read_size, 0);
      const int result = self->glink_read(fds[1].fd, buffer, self->_read_size);
      if (result >= 1) {
        reopen_delay_us = 0;
        MARLO_LOGD("GLINK_int waiting for _s_glink_read_mutex");
        MARLO_LOGD("calling glink response handler: ");
        self->glink_response_handler(std::move(buffer));
        if (life->stop) return;
      } else if (result == 0) {
        // A first read of nothing while poll says there is something: end
        // of stream. The co-processor's end of the channel is closed (it
        // shut down its side, or went down) and every read returns 0 at
        // once, so it is a hang-up. The co-processor never sends an empty
        // packet; were one sent, it would cost a reopen, not a wrong packet.
        MARLO_LOGE("GLINK_int end of stream on fd = %d, handled as a hang-up", fds[1].fd);
        if (!hang_up()) return;
      } else {
        MARLO_LOGE("GLINK_int read has failed with errno = %d, g_glink_err_cnt = %d", result,
                   self->g_glink_err_cnt.load());
        self->glink_error_handler(result);
        if (life->stop) return;
        continue;
      }
    }
    // A pass that ended normally restarts the error count.
    if (self->g_glink_err_cnt != 0) self->g_glink_err_cnt = 0;
  }
}

// Waits `delay_us` (scaled like every sleep of the daemon) before a hang-up
// is handled, on the wake-up pipe so that a disconnect or the destructor
// still stops the reader at once. Requests are refused meanwhile, as while
// the channel is reopened. False when the pipe ended the wait: the caller
// leaves the hang-up for later and reads the pipe.
bool marlo_glink::wait_before_reopen(int wakeup_fd, uint32_t delay_us) {
  if (delay_us == 0) return true;
  MARLO_LOGE("GLINK_int conn = 0x%llx hung up again before any packet came, reopening in %u ms", address_of(this),
             delay_us / 1000);
  _reconnecting = true;
  const int woken = platform::usleep_or_readable(wakeup_fd, delay_us);
  if (woken == 0) return true;
  if (woken < 0) {
    // Never seen on a pipe; the delay is kept all the same.
    MARLO_LOGE("GLINK_int wait on wakeup pipe failed with errno = %d", errno);
    platform::usleep(delay_us);
    return true;
  }
  _reconnecting = false;
  return false;
}

void marlo_glink::glink_error_handler(int error) {
  MARLO_LOGI("GLINK_int glink_error_handler received error = %d", error);
  if (error == kHangUpError) {
    MARLO_LOGD("GLINK_int Inside POLLHUP error handler");
    _reconnecting = true;
    glink_disconnect(false);
    MARLO_LOGD("GLINK_int glink error, trying to reconnect");
    try {
      glink_connect(_chnl_name, true);
    } catch (const std::exception& e) {
      MARLO_LOGE("GLINK_int could not reconnect: %s", e.what());
      return;
    }
    glink_error_cb error_cb = error_callback();
    if (error_cb) {
      MARLO_LOGV("GLINK_int triggered error callback");
      error_cb(GLINK_SSR);
    }
    return;
  }
  MARLO_LOGV("GLINK_int waitig for _s_glink_read_mutex");
  {
    platform::lock_guard lock(_s_glink_read_mutex);
    if (++g_glink_err_cnt > _err_threshold) {
      MARLO_LOGD("GLINK_int triggred ssr g_glink_err_cnt = %d", g_glink_err_cnt.load());
      g_glink_err_cnt = 0;
    }
  }
  glink_error_cb error_cb = error_callback();
  if (error_cb) {
    MARLO_LOGV("GLINK_int triggered error callback");
    error_cb(GLINK_IO_ERROR);
  }
}
