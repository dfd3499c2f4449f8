#include "daemon/NoFlashPsramWorker.h"

#include <utility>

#include <android/log.h>

#include "daemon/marlo_deamon_log.h"

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

void NoFlashPsramWorker::powerUp(const std::function<void()>& under_lock) { powerEvent(true, under_lock); }

// Nothing is pushed to a co-processor that is down: the next power-up asks
// again.
void NoFlashPsramWorker::powerDown(const std::function<void()>& under_lock) { powerEvent(false, under_lock); }

void NoFlashPsramWorker::powerEvent(bool wants_job, const std::function<void()>& under_lock) {
  {
    platform::lock_guard lock(mutex_);
    ++generation_;
    steps_.abortPush(true);
    job_wanted_ = wants_job;
    if (under_lock) under_lock();
  }
  changed_.notify_all();
}

bool NoFlashPsramWorker::runUnlessStale(const std::function<void()>& action) {
  platform::lock_guard lock(mutex_);
  if (job_running_ && job_generation_ != generation_) return false;
  action();
  return true;
}

uint64_t NoFlashPsramWorker::generation() const {
  platform::lock_guard lock(mutex_);
  return generation_;
}

void NoFlashPsramWorker::run() {
  for (;;) {
    {
      platform::unique_lock lock(mutex_);
      while (!stopping_ && !job_wanted_) lock.wait(changed_);
      if (stopping_) return;
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
}
