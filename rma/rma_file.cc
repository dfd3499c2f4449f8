#include "rma/rma_file.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include "platform/os.h"

namespace marlo::rma {

bool write_all(int fd, const uint8_t* data, uint64_t length) {
  while (length > 0) {
    const ssize_t n = platform::write(fd, data, static_cast<size_t>(std::min<uint64_t>(length, 1u << 20)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<uint64_t>(n);
  }
  return true;
}

int64_t read_at(int fd, uint8_t* data, size_t length, uint64_t offset) {
  size_t done = 0;
  while (done < length) {
    // Past what the file offset type can name (a 32-bit off_t): nothing
    // more can be read there.
    if (offset + done > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) break;
    const ssize_t n = platform::pread(fd, data + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

}  // namespace marlo::rma
