// Who guards what, in a form the compiler checks.
//
// A clang build with -Wthread-safety proves that every field marked
// GUARDED_BY(m) is touched only with m held and that every function marked
// REQUIRES(m) is called with it held. Other compilers see plain code.
// `platform::mutex` and `platform::lock_guard` are std::mutex and a scoped
// lock that carry those marks; `unique_lock` is the scoped lock that a
// condition variable can wait on.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define MARLO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MARLO_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) MARLO_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY MARLO_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) MARLO_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) MARLO_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) MARLO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) MARLO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) MARLO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) MARLO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) MARLO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) MARLO_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS MARLO_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace platform {

class CAPABILITY("mutex") mutex {
 public:
  void lock() ACQUIRE() { m_.lock(); }
  void unlock() RELEASE() { m_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return m_.try_lock(); }
  std::mutex& native() { return m_; }

 private:
  std::mutex m_;
};

class SCOPED_CAPABILITY lock_guard {
 public:
  explicit lock_guard(mutex& m) ACQUIRE(m) : m_(m) { m_.lock(); }
  ~lock_guard() RELEASE() { m_.unlock(); }
  lock_guard(const lock_guard&) = delete;
  lock_guard& operator=(const lock_guard&) = delete;

 private:
  mutex& m_;
};

// Held for the whole scope, released and re-taken only inside a wait on
// `cv`, where the analysis treats it as held throughout.
class SCOPED_CAPABILITY unique_lock {
 public:
  explicit unique_lock(mutex& m) ACQUIRE(m) : lock_(m.native()) {}
  ~unique_lock() RELEASE() {}
  unique_lock(const unique_lock&) = delete;
  unique_lock& operator=(const unique_lock&) = delete;

  void wait(std::condition_variable& cv) { cv.wait(lock_); }
  template <class Clock, class Duration>
  std::cv_status wait_until(std::condition_variable& cv, const std::chrono::time_point<Clock, Duration>& t) {
    return cv.wait_until(lock_, t);
  }
  template <class Rep, class Period>
  std::cv_status wait_for(std::condition_variable& cv, const std::chrono::duration<Rep, Period>& d) {
    return cv.wait_for(lock_, d);
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace platform
