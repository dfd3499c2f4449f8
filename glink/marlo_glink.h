// The packet-channel transport: one GLINK packet device, an optional reader
// thread that frames incoming packets and hands them to the data callback,
// request writes with retries, and reopening of the channel after the
// co-processor restarts.
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
  explicit marlo_glink(glink_conn_config config);
  ~marlo_glink() override;

  marlo_glink(const marlo_glink&) = delete;
  marlo_glink& operator=(const marlo_glink&) = delete;

  int register_cb(glink_data_cb data_cb, glink_error_cb error_cb) override;
  int send_request(unsigned char* buf, unsigned int len) override;
  int read_response(unsigned char* buf, unsigned int len) override;
  int connect_interface(bool start_reader) override;
  void disconnect_interface() override;

  int trigger_event_cb(const glink_data_cb& data_cb);

 private:
  int glink_open(const std::string& path);
  int glink_connect(const std::string& name, bool start_reader);
  void glink_disconnect(bool join_reader);
  static void glink_thread_routine(marlo_glink* self);
  void glink_error_handler(int error);

  int glink_read(int fd, std::vector<uint8_t>& buffer, unsigned int len);
  unsigned int get_size_from_header(int bytes_received, std::vector<uint8_t>& buffer);
  int glink_write(int fd, unsigned char* buf, unsigned int len);
  int glink_poll(int fd);
  void glink_response_handler(std::vector<uint8_t> packet);

  std::string _chnl_name;
  uint32_t _read_size;
  std::atomic<int> _s_chnl_fd{-1};
  uint32_t _poll_timeout_s = 2;
  int _wakeup_pipe[2] = {-1, -1};
  std::mutex _s_glink_read_mutex;
  std::atomic<bool> _thread_started{false};
  std::thread _reader_thread;
  int _err_threshold = 10;
  std::atomic<int> g_glink_err_cnt{0};
  std::atomic<bool> _reconnecting{false};
  std::atomic<bool> _closing{false};
  uint8_t* _ind_buf = nullptr;
  uint32_t _ind_buf_len = 0;
  client_wakelock* _wakelock = nullptr;
  std::unique_ptr<glink_register_cb> _callbacks;
};
