// The daemon's sink for the updater's reports: logs them and reacts to the
// ones that change the co-processor's state (a finished download switches it
// to FLASH mode; misc-data progress goes to the boot status).
#pragma once

#include <string>

#include "comhandler/MarloComHandler.h"
#include "fwupdater/marlo_fw_updater.h"

class MarloDaemon;

class DFUCallback : public marlo_fw_updater::Callback {
 public:
  DFUCallback(MarloComHandler* com_handler, MarloDaemon* daemon);

  void handleDFUResponse(std::string message, Status status) override;
  void handleSHMResponse(std::string message, Status status) override;
  void onDFUStateRecived(DFUState state) override;

 private:
  MarloComHandler* com_handler_;
  MarloDaemon* daemon_;
};
