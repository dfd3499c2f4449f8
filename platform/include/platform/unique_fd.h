// The one owner of a descriptor the daemon opens.
//
// A descriptor lives in exactly one unique_fd; moving it hands the
// descriptor on, and the owner closes it through the platform seam when it
// is reset or destroyed. Nothing else calls close on a descriptor.
#pragma once

#include <utility>

#include "platform/os.h"

namespace platform {

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }

  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  explicit operator bool() const { return ok(); }

  // Closes what it holds and takes `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) platform::close(fd_);
    fd_ = fd;
  }

  // Closes now and says whether the close succeeded, for the callers whose
  // data is only safe once the close reported no error. Holds nothing after.
  bool close() {
    const int fd = release();
    return fd < 0 || platform::close(fd) == 0;
  }

  // Gives the descriptor up without closing it.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace platform
