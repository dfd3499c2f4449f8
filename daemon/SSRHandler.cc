#include "daemon/SSRHandler.h"

#include <poll.h>
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
#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/os.h"

namespace {

constexpr const char* kTag = "MarloDaemon";
constexpr int kSocketBufferSize = 64 * 1024;
constexpr char kControlDevice[] = "marlo_com_dev";
constexpr char kEventKey[] = "MARLO_EVENT=";
constexpr size_t kEventKeyLength = sizeof(kEventKey) - 1;
constexpr int32_t kPowerDown = 1;
constexpr int32_t kPowerUp = 4;
// Without a wake-up pipe the listener looks at the stop request this often.
constexpr int kStopCheckMs = 1000;

}  // namespace

SSRHandler::SSRHandler(MarloDaemon* daemon) : daemon_(daemon) {
  int pipe_fds[2];
  if (platform::pipe(pipe_fds) == 0) {
    wakeup_read_.reset(pipe_fds[0]);
    wakeup_write_.reset(pipe_fds[1]);
  } else {
    // Without the pipe the listener cannot be woken: it looks at the stop
    // request once a second instead, so that the destructor can still join
    // it (the daemon never destroys its handler; tests do).
    __android_log_print(ANDROID_LOG_ERROR, kTag, "uevent listener wake-up pipe failed, errno = %d", errno);
  }
  listener_ = std::thread(&SSRHandler::marloSSREventListener, this);
}

SSRHandler::~SSRHandler() {
  stopping_ = true;
  const char stop = 0;
  ssize_t written = -1;
  if (wakeup_write_) {
    do {
      written = platform::write(wakeup_write_.get(), &stop, 1);
    } while (written < 0 && errno == EINTR);
    // A byte that cannot be written: closing the only write end wakes the
    // listener all the same (its read end reports the hang-up).
    if (written != 1) wakeup_write_.reset();
  }
  listener_.join();
}

bool SSRHandler::waitForMessage(int socket) {
  const int timeout_ms = wakeup_read_ ? -1 : kStopCheckMs;
  for (;;) {
    struct pollfd fds[2] = {{socket, POLLIN, 0}, {wakeup_read_.get(), POLLIN, 0}};
    const int ready = platform::poll(fds, 2, timeout_ms);
    if (stopping_) return false;
    if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
    if (ready < 0) return true;  // the receive meets and reports the failure
    if (fds[1].revents != 0) return false;
    if (fds[0].revents != 0) return true;  // an error shows in the receive
  }
}

void SSRHandler::marloSSREventListener() {
  __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s: called\n", "marloSSREventListener");
  const platform::unique_fd socket(uevent_open_socket(kSocketBufferSize, true));
  if (!socket) {
    // The first receive would fail and end the listener.
    __android_log_print(ANDROID_LOG_ERROR, kTag, "open socket failed");
    return;
  }

  // Two spare bytes terminate the last string and the list of strings.
  char buffer[kMaxMessage + 2] = {};
  while (waitForMessage(socket.get())) {
    ssize_t length = platform::receive_uevent(socket.get(), buffer, kMaxMessage);
    if (length > 0) {
      handleMessage(buffer, length);
      continue;
    }
    // A burst overran the socket's buffer: the kernel dropped uevents, the
    // socket itself is fine. Any other failure ends the listener.
    if (length < 0 && errno == ENOBUFS) {
      marlo_deamon_log::print(ANDROID_LOG_ERROR, kTag, "uevent socket overrun, events lost: re-reading marlo state");
      recoverLostEvents();
      continue;
    }
    break;
  }
}

void SSRHandler::handleMessage(char* buffer, ssize_t length) {
  if (length > static_cast<ssize_t>(kMaxMessage)) {
    marlo_deamon_log::print(ANDROID_LOG_ERROR, kTag, "Message length is not correct \n");
    return;
  }
  buffer[length] = '\0';
  buffer[length + 1] = '\0';
  if (buffer[0] == '\0' ||
      memmem(buffer, static_cast<size_t>(length), kControlDevice, sizeof(kControlDevice) - 1) == nullptr) {
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
    case kPowerDown: believed_up = false; break;
    case kPowerUp: believed_up = true; break;
    default: {  // no power event yet: the boot's outcome stands
      char value[PROPERTY_VALUE_MAX] = {};
      property_get("vendor.marlo.boot_complete", value, "0");
      believed_up = std::atoi(value) == 1;
      break;
    }
  }
  int state = daemon_->getMarloPILStatus();
  if (state == 1 && !believed_up) {
    marlo_deamon_log::print(ANDROID_LOG_ERROR, kTag, "lost power-up event: marlo is running");
    last_event_ = kPowerUp;
    handleEvent(kPowerUp);
  } else if (state == 0 && believed_up) {
    marlo_deamon_log::print(ANDROID_LOG_ERROR, kTag, "lost power-down event: marlo is offline");
    last_event_ = kPowerDown;
    handleEvent(kPowerDown);
  } else if (state == 1) {
    // A power-down and power-up lost together leave the state as it was.
    // Only a download's lost channel can show that restart: one is taken up
    // as at a power-up, and an open channel is left alone.
    daemon_->updater()->resumeDownloadOnPowerUp();
  }
}

void SSRHandler::handleEvent(int32_t event) {
  if (event == kPowerDown || event == kPowerUp) last_power_event_ = event;
  if (event == kPowerDown) {
    property_set("vendor.marlo.boot_complete", "0");
    if (daemon_ != nullptr) daemon_->on_aon_down();
    marlo_deamon_log::print(ANDROID_LOG_DEBUG, kTag, "marlo is power down");
  } else if (event == kPowerUp) {
    marlo_deamon_log::print(ANDROID_LOG_DEBUG, kTag, "marlo is powered up");
    property_set("vendor.marlo.boot_complete", "1");
    if (daemon_ != nullptr) daemon_->on_aon_up();
  }
}
