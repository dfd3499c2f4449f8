// The kernel driver behind dev/marlo_com_dev. Each ioctl arrives as one
// request message (u32 request | 32-byte block | data) and is answered with
// one message (i32 result | i32 errno | 32-byte block | reply). Every
// request is recorded so that tests and watchers can follow the daemon.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sim/channel_server.h"
#include "sim/coprocessor.h"
#include "sim/event_log.h"

namespace marlo::sim {

constexpr uint32_t kReqSpiFree = 0x80205603;
constexpr uint32_t kReqSpiBusy = 0x80205604;
constexpr uint32_t kReqReset = 0xc0205605;
constexpr uint32_t kReqIpc = 0xc0205608;
constexpr uint32_t kReqBoot = 0xc0205609;

// cmd words of the boot request.
enum BootCmd : uint32_t {
  kCmdSoftReset = 0,
  kCmdTwmExit = 1,
  kCmdLoad = 3,
  kCmdUnload = 4,
  kCmdSetBootMode = 5,
  kCmdGetBootMode = 6,
  kCmdSaveDump = 7,
  kCmdBootStatus = 8,
};
constexpr uint32_t kIpcCmdVersion = 3;
constexpr uint32_t kResetCmd = 20;
constexpr uint32_t kResetData = 0x08000000;

struct ControlRequest {
  uint32_t request = 0;
  uint32_t value = 0;
  uint32_t cmd = 0;
  uint32_t count = 0;
  uint32_t data = 0;   // the reset request's data word
  uint32_t reply = 0;  // the block's reply-buffer word (the version query's)
  int32_t result = 0;
  int32_t err = 0;
  bool version_replied = false;

  // "LOAD", "SET_BOOT_MODE", ... for display.
  std::string name() const;
};

class ControlDriver : public ChannelServer {
 public:
  ControlDriver(const std::string& root, CoProcessor& coprocessor, EventLog& log);
  ~ControlDriver() override;

  std::vector<ControlRequest> requests() const;
  // Boot status values reported by the daemon, in order.
  std::vector<uint32_t> boot_statuses() const;
  bool spi_busy() const;
  // Offline time of a restart caused by the reset request.
  void set_reset_offline_ms(int ms) { reset_offline_ms_ = ms; }
  // Called before the host's unload or soft reset takes the co-processor
  // down; set before start().
  void set_before_host_unload(std::function<void()> hook) { before_host_unload_ = std::move(hook); }
  // Scripted failures: `refusal` sees every request before the driver carries
  // it out and returns the errno to fail it with, or 0 to carry it out.
  void set_refusal(std::function<int(const ControlRequest&)> refusal);

 protected:
  void on_packet(int fd, const Bytes& packet) override;

 private:
  ControlRequest handle(uint32_t request, const Bytes& block, uint32_t data, Bytes* reply);
  void carry_out(ControlRequest& r, Bytes* reply);
  void handle_boot(ControlRequest& r);

  std::string root_;
  CoProcessor& coprocessor_;
  EventLog& log_;
  std::function<void()> before_host_unload_;
  std::function<int(const ControlRequest&)> refusal_;  // guarded by mutex_
  mutable std::mutex mutex_;
  std::vector<ControlRequest> requests_;
  std::vector<uint32_t> boot_statuses_;
  bool spi_busy_ = false;
  std::atomic<int> reset_offline_ms_{50};
};

}  // namespace marlo::sim
