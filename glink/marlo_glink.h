// The packet-channel transport: one GLINK packet device, an optional reader
// thread that frames incoming packets and hands them to the data callback,
// request writes with retries, and reopening of the channel after the
// co-processor restarts.
//
// Threads: the user's thread connects, sends, reads synchronously and
// disconnects; the reader thread polls the wake-up pipe and the channel and
// runs the data and error callbacks. Every field both touch is atomic or
// guarded by a mutex. A callback may delete the transport: callbacks are
// called through local copies and nothing of the object is touched after one
// returns unless the object is known to be alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "glink/glink_interface.h"

class client_wakelock;

class marlo_glink : public glink_interface {
 public:
  // The largest packet a channel carries; a length field above it is refused.
  static constexpr uint32_t kMaxPacketSize = 1u << 20;

  explicit marlo_glink(glink_conn_config config);
  ~marlo_glink() override;

  marlo_glink(const marlo_glink&) = delete;
  marlo_glink& operator=(const marlo_glink&) = delete;

  int register_cb(glink_data_cb data_cb, glink_error_cb error_cb) override;
  int send_request(unsigned char* buf, unsigned int len) override;
  int read_response(unsigned char* buf, unsigned int len) override;
  int connect_interface(bool start_reader) override;
  void disconnect_interface() override;

  // Hands a copy of the packet being delivered to `data_cb`, valid for the
  // call; -1 when nothing is being delivered. Called by the reader thread
  // while it delivers a packet, and safe from any other thread.
  int trigger_event_cb(const glink_data_cb& data_cb);

 private:
  // Shared between one reader thread and the object: `stop` tells a reader
  // that was detached (disconnected or destroyed from inside a callback on
  // its own thread) to leave without touching the object again.
  struct reader_life {
    std::atomic<bool> stop{false};
  };

  // Connection and reader thread.
  int glink_open(const std::string& path);
  int glink_connect(const std::string& name, bool start_reader);
  void glink_disconnect(bool join_reader);
  static void glink_thread_routine(marlo_glink* self, std::shared_ptr<reader_life> life);
  void glink_error_handler(int error);
  void close_wakeup_pipe();
  glink_data_cb data_callback();
  glink_error_cb error_callback();

  // Byte I/O, framing and delivery.
  int glink_read(int fd, std::vector<uint8_t>& buffer, unsigned int len);
  unsigned int get_size_from_header(int bytes_received, std::vector<uint8_t>& buffer);
  int wait_for_rest_of_packet(int fd);
  int glink_write(int fd, unsigned char* buf, unsigned int len);
  int glink_poll(int fd);
  void glink_response_handler(std::vector<uint8_t> packet);

  std::string _chnl_name;  // written only when a connect names another channel
  uint32_t _read_size;
  std::atomic<int> _s_chnl_fd{-1};
  uint32_t _poll_timeout_s = 2;
  std::atomic<int> _wakeup_pipe[2] = {-1, -1};  // read end, write end
  std::mutex _s_glink_read_mutex;
  std::atomic<bool> _thread_started{false};
  std::thread _reader_thread;
  std::shared_ptr<reader_life> _reader_life;
  int _err_threshold = 10;
  std::atomic<int> g_glink_err_cnt{0};
  std::atomic<bool> _reconnecting{false};
  std::atomic<bool> _closing{false};
  // The packet being delivered to the data callback, bytes and length in one
  // immutable object: a reader of it holds its own reference, so the packet
  // lives until the last reader is done. Set and cleared by the reader thread.
  std::mutex _ind_buf_mutex;  // guards the pointer _ind_buf, not the packet
  std::shared_ptr<const std::vector<uint8_t>> _ind_buf;
  client_wakelock* _wakelock = nullptr;
  std::mutex _callbacks_mutex;  // guards _callbacks; never held while a callback runs
  std::unique_ptr<glink_register_cb> _callbacks;
};
