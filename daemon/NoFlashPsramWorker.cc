#include "daemon/NoFlashPsramWorker.h"

#include <cstdlib>
#include <utility>

#include <android/log.h>
#include <cutils/properties.h>

#include "daemon/marlo_deamon_log.h"

namespace {

constexpr const char* kMiscUpdateProperty = "vendor.zt_aon.misc_update";

}  // namespace

NoFlashPsramWorker::NoFlashPsramWorker(Steps steps) : steps_(std::move(steps)) {
  thread_ = std::thread(&NoFlashPsramWorker::run, this);
}

NoFlashPsramWorker::~NoFlashPsramWorker() {
  {
    platform::lock_guard lock(mutex_);
    stopping_ = true;
    steps_.abortPush(true);
  }
  changed_.notify_all();
  thread_.join();
}

void NoFlashPsramWorker::requestBootJob() {
  {
    platform::lock_guard lock(mutex_);
    job_wanted_ = true;
  }
  changed_.notify_all();
}

void NoFlashPsramWorker::powerUp() { powerEvent(true, true); }

// Nothing is pushed to a co-processor that is down: the next power-up asks
// again.
void NoFlashPsramWorker::powerDown(bool withdraw_misc_data) { powerEvent(false, withdraw_misc_data); }

void NoFlashPsramWorker::powerEvent(bool wants_job, bool withdraw_misc_data) {
  {
    platform::lock_guard lock(mutex_);
    ++generation_;
    steps_.abortPush(true);
    job_wanted_ = wants_job;
    if (withdraw_misc_data) withdraw_asked_ = true;
  }
  changed_.notify_all();
}

bool NoFlashPsramWorker::miscDataPushed() const {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get(kMiscUpdateProperty, value, "0");
  return std::atoi(value) == 1;
}

void NoFlashPsramWorker::pushStarting() { property_set(kMiscUpdateProperty, "0"); }

bool NoFlashPsramWorker::pushSucceeded() {
  {
    platform::lock_guard lock(mutex_);
    if (job_running_ && job_generation_ != generation_) return false;
  }
  // A power event from here on asks for a withdrawal, which this thread
  // writes after this job: it cannot be overtaken by this write.
  property_set(kMiscUpdateProperty, "1");
  return true;
}

void NoFlashPsramWorker::withdrawIfAsked() {
  {
    platform::lock_guard lock(mutex_);
    if (!withdraw_asked_) return;
    withdraw_asked_ = false;
  }
  if (miscDataPushed()) property_set(kMiscUpdateProperty, "0");
}

uint64_t NoFlashPsramWorker::generation() const {
  platform::lock_guard lock(mutex_);
  return generation_;
}

void NoFlashPsramWorker::run() {
  for (;;) {
    withdrawIfAsked();
    {
      platform::unique_lock lock(mutex_);
      while (!stopping_ && !job_wanted_ && !withdraw_asked_) lock.wait(changed_);
      if (stopping_) break;
      if (withdraw_asked_) continue;  // written before the job it may precede
      job_wanted_ = false;
      job_running_ = true;
      job_generation_ = generation_;
      steps_.abortPush(false);
    }

    steps_.push();
    bool current;
    {
      platform::lock_guard lock(mutex_);
      current = job_generation_ == generation_;
    }
    if (current) {
      steps_.startRma();
    } else {
      marlo_deamon_log::print(ANDROID_LOG_INFO, nullptr,
                              "power event during the misc-data push: push abandoned, no rma connection for it");
    }

    platform::lock_guard lock(mutex_);
    job_running_ = false;
    changed_.notify_all();
  }
  // A power event just before the stop still withdraws the misc data.
  withdrawIfAsked();
}
