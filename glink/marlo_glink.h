// The packet-channel transport: one GLINK packet device, an optional reader
// thread that frames incoming packets and hands them to the data callback,
// request writes with retries, and reopening of the channel after the
// co-processor restarts.
//
// Threads: the user's thread connects, sends, reads synchronously and
// disconnects; the reader thread polls the wake-up pipe and the channel and
// runs the data and error callbacks. Each field below says which thread owns
// it or which mutex guards it. A callback may delete the transport: callbacks
// are called through local copies and nothing of the object is touched after
// one returns unless the object is known to be alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "comhandler/client_wakelock.h"
#include "glink/glink_interface.h"
#include "platform/thread_annotations.h"
#include "platform/unique_fd.h"

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
  platform::unique_fd glink_open(const std::string& path, int* error);
  int glink_connect(const std::string& name, bool start_reader);
  void glink_disconnect(bool join_reader);
  void start_reader_thread();
  void stop_reader_thread();
  static void glink_thread_routine(marlo_glink* self, std::shared_ptr<reader_life> life, int wakeup_fd);
  bool wait_before_reopen(int wakeup_fd, uint32_t delay_us);
  void glink_error_handler(int error);
  glink_data_cb data_callback();
  glink_error_cb error_callback();

  // Byte I/O, framing and delivery.
  int glink_read(int fd, std::vector<uint8_t>& buffer, unsigned int len);
  unsigned int get_size_from_header(int bytes_received, std::vector<uint8_t>& buffer);
  int wait_for_rest_of_packet(int fd);
  int glink_write(int fd, unsigned char* buf, unsigned int len);
  int glink_poll(int fd);
  int glink_poll(int fd, int timeout_ms);
  void glink_response_handler(std::vector<uint8_t> packet);

  // Fixed when the transport is made, or (the name) written only when a
  // connect names another channel; read by both threads.
  std::string _chnl_name;
  const uint32_t _read_size;
  const uint32_t _poll_timeout_s = 2;
  const int _err_threshold = 10;
  client_wakelock* _wakelock = nullptr;  // the process's wakelock; set by the constructor, then only read

  // The open channel and the writes to it: no request is written while the
  // descriptor is closed or replaced.
  platform::mutex _s_glink_read_mutex;
  platform::unique_fd _s_chnl_fd GUARDED_BY(_s_glink_read_mutex);
  int _s_chnl_err GUARDED_BY(_s_glink_read_mutex) = 0;  // errno of the last failed open; 0 when none
  // The channel as the threads that do not take the lock see it (the
  // reader's poll, the synchronous read, the logs): the descriptor, -1 when
  // closed, or the negated errno of a failed open, which poll passes over.
  // Written under _s_glink_read_mutex together with the two fields above.
  std::atomic<int> _chnl_fd_seen{-1};

  // The reader thread, its life and its wake-up pipe. Started, joined or let
  // go only by start_reader_thread() and stop_reader_thread(), on the thread
  // that connects and disconnects: the user's thread, or the reader itself
  // inside a callback. Users never connect or disconnect from two threads at
  // once. The pipe is closed only once the reader is joined or let go from
  // its own thread, so the read end it polls stays open while it polls, and
  // a reader let go touches nothing after its callback returns.
  std::thread _reader_thread;
  std::shared_ptr<reader_life> _reader_life;
  platform::unique_fd _wakeup_pipe[2];  // read end, write end
  std::atomic<bool> _thread_started{false};

  // Atomics, written and read by the user's thread and the reader thread.
  std::atomic<int> g_glink_err_cnt{0};     // I/O errors since the last good pass
  std::atomic<bool> _reconnecting{false};  // from a hang-up until a reopen succeeds
  std::atomic<bool> _closing{false};       // set by the destructor: deliveries are dropped
  // The packet being delivered to the data callback, bytes and length in one
  // immutable object: a reader of it holds its own reference, so the packet
  // lives until the last reader is done. Set and cleared by the reader thread.
  platform::mutex _ind_buf_mutex;  // guards the pointer _ind_buf, not the packet
  std::shared_ptr<const std::vector<uint8_t>> _ind_buf GUARDED_BY(_ind_buf_mutex);
  platform::mutex _callbacks_mutex;  // never held while a callback runs
  std::unique_ptr<glink_register_cb> _callbacks GUARDED_BY(_callbacks_mutex);
};
