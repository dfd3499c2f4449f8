#include "host_side.h"

#include <fcntl.h>

#include <cerrno>

#include "platform/os.h"

namespace marlo::sim::test {

IoctlAnswer control(uint32_t request, uint32_t cmd, uint32_t value) {
  IoctlAnswer answer{-1, 0, {}};
  int fd = platform::open("/dev/marlo_com_dev", O_RDWR);
  if (fd < 0) {
    answer.err = errno;
    return answer;
  }
  uint8_t version[308] = {};
  uint32_t data = 0x08000000;
  Bytes block(32, 0);
  put_u32(block, 0, request == 0xc0205605 ? platform::user_word(&data) : value);
  put_u32(block, 20, cmd);
  if (request == 0xc0205605) put_u32(block, 24, 1);
  if (request == 0xc0205608) put_u32(block, 28, platform::user_word(version));
  answer.result = platform::ioctl(fd, request, block.data());
  answer.err = answer.result == -1 ? errno : 0;
  if (request == 0xc0205608 && answer.result == 0) answer.reply.assign(version, version + sizeof(version));
  platform::close(fd);
  return answer;
}

int open_node(const char* path) { return platform::open(path, O_RDWR); }

Bytes read_packet(int fd, int timeout_ms) {
  struct pollfd entry = {fd, POLLIN, 0};
  if (platform::poll(&entry, 1, timeout_ms) != 1 || !(entry.revents & POLLIN)) return {};
  Bytes buf(1 << 16);
  ssize_t n = platform::read(fd, buf.data(), buf.size());
  buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return buf;
}

bool write_packet(int fd, const Bytes& packet) {
  return platform::write(fd, packet.data(), packet.size()) == static_cast<ssize_t>(packet.size());
}

}  // namespace marlo::sim::test
