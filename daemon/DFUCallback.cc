#include "daemon/DFUCallback.h"

#include <android/log.h>

#include "daemon/MarloDaemon.h"
#include "daemon/marlo_deamon_log.h"

namespace {

void log_report(const char* handler, const std::string& message) {
  marlo_deamon_log::print(ANDROID_LOG_DEBUG, nullptr, "%s: %s", handler, message.c_str());
}

}  // namespace

DFUCallback::DFUCallback(MarloComHandler* com_handler, MarloDaemon* daemon)
    : com_handler_(com_handler), daemon_(daemon) {}

void DFUCallback::handleDFUResponse(std::string message, Status status) {
  switch (status) {
    case STATUS_STARTED:
    case STATUS_ERASE_DONE:
    case STATUS_ERROR:
    case STATUS_ENDED: log_report("handleDFUResponse", message); break;
    case STATUS_SUCCESS:
      log_report("handleDFUResponse", message);
      __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s: Changing boot mode to FLASH", "handleDFUResponse");
      daemon_->notifyBootProgress(3);
      daemon_->changeBootmode(FLASH);
      daemon_->finishDownloadRecord();
      break;
    case STATUS_CHANNEL_ERROR:
      log_report("handleDFUResponse", message);
      com_handler_->set_marlo_boot_status(1);
      break;
    case STATUS_INFO:  // progress is not logged
    default: break;
  }
}

void DFUCallback::handleSHMResponse(std::string message, Status status) {
  switch (status) {
    case STATUS_STARTED:
      log_report("handleSHMResponse", message);
      com_handler_->set_marlo_boot_status(2);
      if (daemon_ != nullptr) daemon_->onMiscDataPushStarted();
      break;
    case STATUS_SUCCESS:
      log_report("handleSHMResponse", message);
      com_handler_->set_marlo_boot_status(3);
      if (daemon_ != nullptr) daemon_->onMiscDataPushSucceeded();
      break;
    case STATUS_ERASE_DONE:
    case STATUS_ERROR:
    case STATUS_ENDED:
    case STATUS_CHANNEL_ERROR: log_report("handleSHMResponse", message); break;
    case STATUS_INFO:
    default: break;
  }
}

void DFUCallback::onDFUStateRecived(DFUState state) {
  if (state == INIT) {
    marlo_deamon_log::print(ANDROID_LOG_DEBUG, nullptr, "Marlo DFU in init state. We can perform firmware update.");
  } else if (state <= CANCEL_UPDATE_REQ) {
    marlo_deamon_log::print(ANDROID_LOG_DEBUG, nullptr, "Firmware update in progress.");
  }
}
