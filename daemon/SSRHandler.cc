#include "daemon/SSRHandler.h"

#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/uevent.h>

#include "daemon/MarloDaemon.h"

namespace {

constexpr const char* kTag = "MarloDaemon";
constexpr int kSocketBufferSize = 64 * 1024;
constexpr char kControlDevice[] = "marlo_com_dev";
constexpr char kEventKey[] = "MARLO_EVENT=";
constexpr size_t kEventKeyLength = sizeof(kEventKey) - 1;
constexpr int32_t kPowerDown = 1;
constexpr int32_t kPowerUp = 4;

}  // namespace

SSRHandler::SSRHandler(MarloDaemon* daemon) : daemon_(daemon) {
  std::thread(&SSRHandler::marloSSREventListener, this).detach();
}

void SSRHandler::marloSSREventListener() {
  __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s: called\n", "marloSSREventListener");
  int socket = uevent_open_socket(kSocketBufferSize, true);
  if (socket < 0) __android_log_print(ANDROID_LOG_ERROR, kTag, "open socket failed");

  // Two spare bytes terminate the last string and the list of strings.
  char buffer[kMaxMessage + 2] = {};
  for (;;) {
    ssize_t length = uevent_kernel_multicast_recv(socket, buffer, kMaxMessage);
    if (length > 0) {
      handleMessage(buffer, length);
      continue;
    }
    // A burst overran the socket's buffer: the kernel dropped uevents, the
    // socket itself is fine. Any other failure ends the listener.
    if (length < 0 && errno == ENOBUFS) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "uevent socket overrun, events lost: re-reading marlo state");
      recoverLostEvents();
      continue;
    }
    break;
  }
  if (socket >= 0) close(socket);
}

void SSRHandler::handleMessage(char* buffer, ssize_t length) {
  if (length > static_cast<ssize_t>(kMaxMessage)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Message length is not correct \n");
    return;
  }
  buffer[length] = '\0';
  buffer[length + 1] = '\0';
  if (buffer[0] == '\0' || memmem(buffer, static_cast<size_t>(length), kControlDevice, sizeof(kControlDevice) - 1) == nullptr) {
    return;
  }
  // The message is a list of NUL-terminated strings ended by an empty one.
  for (const char* text = buffer; *text != '\0'; text += std::strlen(text) + 1) {
    if (std::strncmp(text, kEventKey, kEventKeyLength) != 0) continue;
    int32_t event = std::atoi(text + kEventKeyLength);
    last_event_ = event;
    handleEvent(event);
  }
}

void SSRHandler::recoverLostEvents() {
  if (daemon_ == nullptr) return;
  bool believed_up;
  switch (last_power_event_.load()) {
    case kPowerDown:
      believed_up = false;
      break;
    case kPowerUp:
      believed_up = true;
      break;
    default: {  // no power event yet: the boot's outcome stands
      char value[PROPERTY_VALUE_MAX] = {};
      property_get("vendor.marlo.boot_complete", value, "0");
      believed_up = std::atoi(value) == 1;
      break;
    }
  }
  int state = daemon_->getMarloPILStatus();
  if (state == 1 && !believed_up) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "lost power-up event: marlo is running");
    last_event_ = kPowerUp;
    handleEvent(kPowerUp);
  } else if (state == 0 && believed_up) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "lost power-down event: marlo is offline");
    last_event_ = kPowerDown;
    handleEvent(kPowerDown);
  }
}

void SSRHandler::handleEvent(int32_t event) {
  if (event == kPowerDown || event == kPowerUp) last_power_event_ = event;
  if (event == kPowerDown) {
    property_set("vendor.marlo.boot_complete", "0");
    if (daemon_ != nullptr) daemon_->on_aon_down();
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "marlo is power down");
  } else if (event == kPowerUp) {
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "marlo is powered up");
    property_set("vendor.marlo.boot_complete", "1");
    if (daemon_ != nullptr) daemon_->on_aon_up();
  }
}
