// Whole-buffer I/O on the RMA service's backing files, shared by the request
// handling and the backing-file store. Their descriptors are held in
// platform::unique_fd.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace marlo::rma {

// Writes all of `length` bytes; false when the file system refused.
bool write_all(int fd, const uint8_t* data, uint64_t length);

// Reads up to `length` bytes from `offset` into `data`, stopping early only
// at the end of the file or on an error; the count read, -1 on an error.
int64_t read_at(int fd, uint8_t* data, size_t length, uint64_t offset);

}  // namespace marlo::rma
