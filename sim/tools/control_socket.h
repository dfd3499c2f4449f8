// Commands to a running `marlo-sim serve` through <root>/sim/control.sock:
// one text command per message, one text reply.
//
//   status                     co-processor, DFU, misc and RMA state
//   requests                   every control-device request so far
//   restart                    subsystem restart (power-down/up uevents)
//   power-cycle                device reboot: co-processor off, boot mode FLASH
//   fault drop-dfu N           hang up the DFU channel after N fragments
//   fault busy N               the next N control-device opens get EBUSY
//   fault flash-load N         the next N FLASH boots fail
//   fault rma-restart N        restart the co-processor after N RMA requests
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace marlo::sim {

class VirtualDevice;

constexpr const char* kControlSocket = "/sim/control.sock";

// Carries out one command on the device; the reply text (starting with
// "error:" when the command was not understood).
std::string run_device_command(VirtualDevice& device, const std::string& command);

class ControlSocketServer {
 public:
  explicit ControlSocketServer(VirtualDevice& device);
  ~ControlSocketServer();
  ControlSocketServer(const ControlSocketServer&) = delete;
  ControlSocketServer& operator=(const ControlSocketServer&) = delete;

 private:
  void run();

  VirtualDevice& device_;
  std::string path_;
  int fd_ = -1;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

// Sends one command to the serve process of `root`; false when none listens.
bool send_device_command(const std::string& root, const std::string& command, std::string* reply);

}  // namespace marlo::sim
