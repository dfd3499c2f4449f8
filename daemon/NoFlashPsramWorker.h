// The one owner of a flash-less (NOFLASH_PSRAM) co-processor's misc-data push
// and RMA client: a serial worker thread that takes the boot-time request and
// the power-up and power-down events and runs one job at a time.
//
// A job is a complete misc-data push followed by the start of the RMA client.
// Every power event starts a new power generation: the push in progress is
// told to fail fast (its remaining packets are not sent), and the job that
// belonged to the old generation starts no RMA client. A power-up asks for a
// new job; a power-down cancels a job that has not started yet. So the last
// power-up is always followed by one complete push and one RMA client, and
// nothing but this thread ever pushes or starts the client.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <thread>

#include "platform/thread_annotations.h"

class NoFlashPsramWorker {
 public:
  struct Steps {
    // The misc-data push; runs on the worker thread.
    std::function<void()> push;
    // Starts (or restarts) the RMA client; runs on the worker thread.
    std::function<void()> startRma;
    // true: the push in progress fails fast from its next packet on; false:
    // a new push may run. Called with the worker's lock held, from any thread.
    std::function<void(bool)> abortPush;
  };

  explicit NoFlashPsramWorker(Steps steps);
  // Stops the thread after the job in progress and joins it.
  ~NoFlashPsramWorker();
  NoFlashPsramWorker(const NoFlashPsramWorker&) = delete;
  NoFlashPsramWorker& operator=(const NoFlashPsramWorker&) = delete;

  // Boot completion found a flash-less co-processor: asks for a job and
  // returns at once. The caller (the main thread) never waits for a job: a
  // co-processor that keeps restarting would keep it waiting for ever.
  void requestBootJob();
  // The co-processor powered up / down. `under_lock` runs with the worker's
  // lock held, after the job in progress has lost its generation: property
  // writes made there are ordered with those of runUnlessStale.
  void powerUp(const std::function<void()>& under_lock = {});
  void powerDown(const std::function<void()>& under_lock = {});

  // Runs `action` with the worker's lock held unless the job in progress
  // belongs to an older power generation; false when it did not run. Used
  // for what a push may report only while it is current.
  bool runUnlessStale(const std::function<void()>& action);

  uint64_t generation() const;

 private:
  void run();
  // Starts a new power generation: the push in progress loses it, and a job
  // is wanted after a power-up only.
  void powerEvent(bool wants_job, const std::function<void()>& under_lock) EXCLUDES(mutex_);

  const Steps steps_;  // set by the constructor, called by any thread
  mutable platform::mutex mutex_;
  std::condition_variable changed_;  // waited on with mutex_
  uint64_t generation_ GUARDED_BY(mutex_) = 0;
  uint64_t job_generation_ GUARDED_BY(mutex_) = 0;  // of the job in progress
  bool job_wanted_ GUARDED_BY(mutex_) = false;
  bool job_running_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  // Started last, once the fields above exist, by the constructor; joined
  // by the destructor.
  std::thread thread_;
};
