#include "comhandler/MarloComHandler.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <android/log.h>
#include <cutils/properties.h>

#include "platform/os.h"
#include "platform/thread_annotations.h"
#include "platform/unique_fd.h"

namespace {

constexpr const char* kControlDevice = "/dev/marlo_com_dev";
constexpr int kOpenAttempts = 15;
constexpr int kVersionAttempts = 14;

// Open-failure messages; each request names the device as it always has.
constexpr const char* kCannotOpenMarlocom = "Cannot open marlocom_dev node fd =%d\n";
constexpr const char* kCannotOpenMarloCom = "Cannot open marlo_com_dev node fd =%d\n";
constexpr const char* kCannotOpenKzCom = "Cannot open kz_com_dev node fd =%d\n";

std::atomic<MarloComHandler*> g_instance{nullptr};
platform::mutex g_instance_mutex;  // serialises the first creation of the instance

// Opens the control device, issues one request and closes the device again.
// False when the device could not be opened; the failure is logged with the
// caller's message.
bool issue(unsigned long request, marlo_com_ioctl_req* block, const char* open_failure, int* result) {
  platform::unique_fd fd = MarloComHandler::open_device(kControlDevice, O_RDWR);
  if (!fd.ok()) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, open_failure, fd.get());
    return false;
  }
  *result = platform::ioctl(fd.get(), request, block);
  return true;
}

// A boot request carrying one command word and its value.
int boot_command(uint32_t cmd, uint32_t value, const char* open_failure, bool* opened) {
  marlo_com_ioctl_req block{};
  block.cmd = cmd;
  block.value = value;
  int result = -1;
  *opened = issue(MARLO_COM_IOCTL_BOOT_CMD, &block, open_failure, &result);
  return *opened ? result : -1;
}

// A boot request whose failure (a non-zero result) is only logged.
void boot_command_logged(uint32_t cmd, const char* open_failure, int prio, const char* failure) {
  bool opened = false;
  int result = boot_command(cmd, 0, open_failure, &opened);
  if (opened && result != 0) __android_log_print(prio, nullptr, "%s", failure);
}

// A boot request whose result is returned; a negative one is also logged.
int boot_command_result(uint32_t cmd, uint32_t value, const char* failure) {
  bool opened = false;
  int result = boot_command(cmd, value, kCannotOpenMarloCom, &opened);
  if (opened && result < 0) __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s", failure);
  return result;
}

void spi_command(unsigned long request, const char* failure) {
  marlo_com_ioctl_req block{};
  int result = 0;
  if (issue(request, &block, kCannotOpenMarlocom, &result) && result != 0) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s", failure);
  }
}

}  // namespace

MarloComHandler* MarloComHandler::getInstance() {
  MarloComHandler* instance = g_instance.load(std::memory_order_acquire);
  if (instance == nullptr) {
    platform::lock_guard lock(g_instance_mutex);
    instance = g_instance.load(std::memory_order_relaxed);
    if (instance == nullptr) {
      instance = new MarloComHandler();  // lives for the whole process
      g_instance.store(instance, std::memory_order_release);
    }
  }
  return instance;
}

platform::unique_fd MarloComHandler::open_device(const char* path, int flags) {
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    platform::unique_fd fd(platform::open(path, flags));
    if (fd.ok()) return fd;
    if (errno != EBUSY) {
      __android_log_print(ANDROID_LOG_ERROR, nullptr, "Failed to open the marlocom_dev");
      return fd;
    }
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "marlocom_dev is busy, retrying in %d seconds...\n", 1);
    platform::sleep(1);
  }
  __android_log_print(ANDROID_LOG_ERROR, nullptr, "Failed to open marlocom_dev after multiple attempts\n");
  return platform::unique_fd();
}

void MarloComHandler::marlocomSpiBusy() { spi_command(MARLO_COM_IOCTL_SPI_BUSY, "SPI busy failed"); }

void MarloComHandler::marlocomSpiFree() { spi_command(MARLO_COM_IOCTL_SPI_FREE, "SPI free failed"); }

void MarloComHandler::marloReset() {
  platform::unique_fd fd = open_device(kControlDevice, O_RDWR);
  if (!fd.ok()) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, kCannotOpenMarlocom, fd.get());
    return;
  }
  uint32_t data = MARLO_RESET_DATA;
  marlo_com_ioctl_req block{};
  block.cmd = MARLO_CMD_RESET;
  block.value = platform::user_word(&data);
  block.count = 1;
  if (platform::ioctl(fd.get(), MARLO_COM_IOCTL_RESET, &block) != 0) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "\t***** Marlo reset failed *****\t");
  }
}

void MarloComHandler::marloSoftReset() {
  boot_command_logged(MARLO_CMD_SOFT_RESET, kCannotOpenMarlocom, ANDROID_LOG_ERROR,
                      "\t***** Marlo soft reset failed *****\t");
}

void MarloComHandler::marloTWMexit() {
  boot_command_logged(MARLO_CMD_TWM_EXIT, kCannotOpenMarlocom, ANDROID_LOG_ERROR, "Send TWM_EXIT flag failed");
}

int MarloComHandler::marloLoad() {
  bool opened = false;
  int result = boot_command(MARLO_CMD_LOAD, 0, kCannotOpenMarloCom, &opened);
  if (opened && result != 0) __android_log_print(ANDROID_LOG_ERROR, nullptr, "Send MARLO_LOAD flag failed");
  return result;
}

void MarloComHandler::marloUnload() {
  boot_command_logged(MARLO_CMD_UNLOAD, kCannotOpenMarlocom, ANDROID_LOG_ERROR, "Send MARLO_UNLOAD flag failed");
}

int MarloComHandler::set_marlo_boot_mode(int mode) {
  return boot_command_result(MARLO_CMD_SET_BOOT_MODE, static_cast<uint32_t>(mode), "Send SET_BOOT_MODE ioctl failed");
}

int MarloComHandler::get_marlo_boot_mode() {
  return boot_command_result(MARLO_CMD_GET_BOOT_MODE, 0, "Send GET_BOOT_MODE ioctl failed");
}

int MarloComHandler::cmd_save_aon_dump() {
  bool opened = false;
  int result = boot_command(MARLO_CMD_SAVE_DUMP, 0, kCannotOpenKzCom, &opened);
  if (opened && result < 0) __android_log_print(ANDROID_LOG_ERROR, nullptr, "Send SEND_BOOT_CMD ioctl failed");
  return result;
}

int MarloComHandler::set_marlo_boot_status(int status) {
  return boot_command_result(MARLO_CMD_BOOT_STATUS, static_cast<uint32_t>(status), "Send BOOT_STATUS ioctl failed");
}

std::unique_ptr<wear_firmware_info_t> MarloComHandler::get_current_aon_fw_version() {
  platform::unique_fd fd = open_device(kControlDevice, O_RDWR);
  if (!fd.ok()) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, kCannotOpenMarloCom, fd.get());
    return nullptr;
  }
  // Zeroed, so that a record the device never filled reads as empty texts.
  auto info = std::make_unique<wear_firmware_info_t>();
  marlo_com_ioctl_req block{};
  block.cmd = MARLO_CMD_GET_VERSION;
  bool done = false;
  int result = 0;
  for (int attempt = 1; attempt <= kVersionAttempts && !done; ++attempt) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get("vendor.marlo.boot_complete", value, "0");
    if (std::atoi(value) != 0) {
      block.reply_buf = platform::user_word(info.get());
      result = platform::ioctl(fd.get(), MARLO_COM_IOCTL_IPC_CMD, &block);
      done = (result == 0);
      if (!done) {
        __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s: Marlo boot done, but get version fail-retry:%d",
                            "get_current_aon_fw_version", attempt);
      }
    } else {
      __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s: Marlo boot not completed, retry:%d",
                          "get_current_aon_fw_version", attempt);
    }
    if (!done) platform::sleep(1);
  }
  if (!done && result < 0) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Send SEND_IPC_CMD failed to get version");
    return nullptr;
  }
  // The texts come from the co-processor: keep every one terminated.
  info->apps_version[sizeof(info->apps_version) - 1] = '\0';
  info->dsp_version[sizeof(info->dsp_version) - 1] = '\0';
  info->bt_version[sizeof(info->bt_version) - 1] = '\0';
  uint32_t kapi = info->kapi_version;
  __android_log_print(ANDROID_LOG_INFO, nullptr, "KAPI Ver: %d.%d.%d\n", static_cast<int>(kapi >> 24),
                      static_cast<int>((kapi >> 16) & 0xFF), static_cast<int>(kapi & 0xFFFF));
  __android_log_print(ANDROID_LOG_INFO, nullptr, "apps_tbx7700: %s\n", info->apps_version);
  __android_log_print(ANDROID_LOG_INFO, nullptr, "dsp_tbx7700: %s\n", info->dsp_version);
  __android_log_print(ANDROID_LOG_INFO, nullptr, "bt_tbx7700: %s\n", info->bt_version);
  return info;
}
