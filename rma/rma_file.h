// Descriptor ownership and whole-buffer I/O on the RMA service's backing
// files, shared by the request handling and the backing-file store.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace marlo::rma {

// Closes a descriptor opened through the platform seam when it goes out of
// scope.
class file_descriptor {
 public:
  explicit file_descriptor(int fd) : fd_(fd) {}
  ~file_descriptor();
  file_descriptor(const file_descriptor&) = delete;
  file_descriptor& operator=(const file_descriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now; false when the close reported an error.
  bool close();

 private:
  int fd_;
};

// Writes all of `length` bytes; false when the file system refused.
bool write_all(int fd, const uint8_t* data, uint64_t length);

// Reads up to `length` bytes from `offset` into `data`, stopping early only
// at the end of the file or on an error; the count read, -1 on an error.
int64_t read_at(int fd, uint8_t* data, size_t length, uint64_t offset);

}  // namespace marlo::rma
