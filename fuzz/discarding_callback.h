// The updater's result sink for fuzz targets: takes every report and keeps
// nothing but a count, so that report texts are built and passed on as in the
// daemon. Safe to call from several threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "fwupdater/marlo_fw_updater.h"

namespace marlo::fuzz {

class DiscardingCallback : public marlo_fw_updater::Callback {
 public:
  void handleDFUResponse(std::string message, Status) override { bytes_ += message.size(); }
  void handleSHMResponse(std::string message, Status) override { bytes_ += message.size(); }
  void onDFUStateRecived(DFUState state) override { bytes_ += state; }

 private:
  std::atomic<size_t> bytes_{0};
};

}  // namespace marlo::fuzz
