// The packet-channel transport as its users see it: the DFU session and the
// misc-data transfer of the firmware updater, and the RMA client.
#pragma once

#include <cstdint>
#include <functional>

enum glink_interface_error {
  GLINK_OPEN_FAILED = 0,  // the channel could not be opened (not while reconnecting)
  GLINK_IO_ERROR = 1,     // a failed poll, read or request write
  GLINK_SSR = 2,          // the channel hung up (co-processor restart) and was reopened
};

// A received packet; the buffer is valid only during the call.
using glink_data_cb = std::function<void(uint8_t* data, uint32_t length)>;
using glink_error_cb = std::function<void(glink_interface_error error)>;

struct glink_conn_config {
  const char* channel_name = nullptr;  // device name without "/dev/"
  uint32_t read_size = 0;              // bytes asked for by the first read of each packet
};

struct glink_register_cb {
  glink_register_cb(glink_data_cb data, glink_error_cb error) : data_cb(std::move(data)), error_cb(std::move(error)) {}
  glink_data_cb data_cb;
  glink_error_cb error_cb;
};

class glink_interface {
 public:
  virtual int register_cb(glink_data_cb data_cb, glink_error_cb error_cb) = 0;
  // Writes one packet; the byte count of the last write, negative on failure.
  virtual int send_request(unsigned char* buf, unsigned int len) = 0;
  // Reads exactly len bytes within the poll time-out: 0, or -1.
  virtual int read_response(unsigned char* buf, unsigned int len) = 0;
  virtual int connect_interface(bool start_reader) = 0;
  virtual void disconnect_interface() = 0;
  virtual ~glink_interface() = default;
};
