// The co-processor's control device, "/dev/marlo_com_dev": one member per
// driver request. Each opens the device, issues one ioctl and closes it; the
// class holds no state, so any instance serves as well as the singleton.
#pragma once

#include <cstdint>
#include <memory>

#include "comhandler/wear_firmware_info.h"
#include "platform/unique_fd.h"

enum MarloBootMode {
  HOST = 0,
  FLASH = 1,
};

// The 32-byte block passed by address with every request.
struct marlo_com_ioctl_req {
  uint32_t value;  // argument, or the user pointer to the reset's data word
  uint32_t reserved[4];
  uint32_t cmd;
  uint32_t count;      // 1 for the reset request
  uint32_t reply_buf;  // user pointer to the version query's reply buffer
};
static_assert(sizeof(marlo_com_ioctl_req) == 32, "the request block is 32 bytes");

// Driver requests: type 'V', 32-byte payload.
constexpr unsigned long MARLO_COM_IOCTL_SPI_FREE = 0x80205603;
constexpr unsigned long MARLO_COM_IOCTL_SPI_BUSY = 0x80205604;
constexpr unsigned long MARLO_COM_IOCTL_RESET = 0xc0205605;
constexpr unsigned long MARLO_COM_IOCTL_IPC_CMD = 0xc0205608;
constexpr unsigned long MARLO_COM_IOCTL_BOOT_CMD = 0xc0205609;

// Command words of the boot request.
enum marlo_boot_cmd : uint32_t {
  MARLO_CMD_SOFT_RESET = 0,
  MARLO_CMD_TWM_EXIT = 1,
  MARLO_CMD_LOAD = 3,
  MARLO_CMD_UNLOAD = 4,
  MARLO_CMD_SET_BOOT_MODE = 5,
  MARLO_CMD_GET_BOOT_MODE = 6,
  MARLO_CMD_SAVE_DUMP = 7,
  MARLO_CMD_BOOT_STATUS = 8,
};
constexpr uint32_t MARLO_CMD_RESET = 20;
constexpr uint32_t MARLO_CMD_GET_VERSION = 3;
constexpr uint32_t MARLO_RESET_DATA = 0x08000000;

class MarloComHandler {
 public:
  static MarloComHandler* getInstance();

  void marlocomSpiBusy();
  void marlocomSpiFree();
  void marloReset();
  void marloSoftReset();
  void marloTWMexit();
  int marloLoad();
  void marloUnload();
  int set_marlo_boot_mode(int mode);
  int get_marlo_boot_mode();
  int cmd_save_aon_dump();
  int set_marlo_boot_status(int status);
  // The running firmware's versions, handed to the caller. Null when the
  // device cannot be opened or every query failed.
  std::unique_ptr<wear_firmware_info_t> get_current_aon_fw_version();

  // Opens the device, retrying once a second while it is busy (15 attempts).
  static platform::unique_fd open_device(const char* path, int flags);
};
