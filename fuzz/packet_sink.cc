#include "fuzz/packet_sink.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/crc32.h"
#include "fuzz/scratch_root.h"

namespace marlo::fuzz {

namespace {

uint32_t word(const std::vector<uint8_t>& packet, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, packet.data() + offset, sizeof(value));
  return value;
}

[[noreturn]] void malformed(const char* what, size_t size) {
  std::fprintf(stderr, "malformed packet from the daemon (%zu bytes): %s\n", size, what);
  std::abort();
}

}  // namespace

PacketSink::PacketSink(const std::string& device_path, Check check)
    : node_(scratch_root() + device_path), check_(std::move(check)), thread_([this] { run(); }) {}

PacketSink::~PacketSink() {
  stop_ = true;
  thread_.join();
}

void PacketSink::run() {
  std::vector<int> connections;
  std::vector<uint8_t> packet;
  while (!stop_) {
    std::vector<struct pollfd> fds{{node_.listen_fd(), POLLIN, 0}};
    for (int fd : connections) fds.push_back({fd, POLLIN, 0});
    if (::poll(fds.data(), fds.size(), 20) <= 0) continue;
    if (fds[0].revents & POLLIN) {
      int fd = node_.accept_open(0);
      if (fd >= 0) connections.push_back(fd);
    }
    for (size_t i = 1; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      long n = sim::receive_message(fds[i].fd, packet, 0);
      if (n > 0) {
        check_(packet);
      } else if (n == 0 || (fds[i].revents & (POLLHUP | POLLERR))) {
        ::close(fds[i].fd);
        connections.erase(std::find(connections.begin(), connections.end(), fds[i].fd));
      }
    }
  }
  for (int fd : connections) ::close(fd);
}

void check_dfu_packet(const std::vector<uint8_t>& packet) {
  if (packet.size() < 16) malformed("shorter than the DFU header", packet.size());
  if (word(packet, 4) != 0x0A0B0C0D) malformed("DFU magic", packet.size());
  if (word(packet, 8) != packet.size()) malformed("DFU total length", packet.size());
  std::vector<uint8_t> zeroed = packet;
  std::memset(zeroed.data() + 12, 0, 4);
  if (marlo::crc32(zeroed.data(), zeroed.size()) != word(packet, 12)) malformed("DFU CRC", packet.size());
}

void check_rma_packet(const std::vector<uint8_t>& packet) {
  if (packet.size() < 12) malformed("shorter than the RMA header", packet.size());
  if (word(packet, 4) != packet.size()) malformed("RMA total length", packet.size());
  if (marlo::crc32(packet.data() + 4, packet.size() - 4) != word(packet, 0)) malformed("RMA CRC", packet.size());
}

}  // namespace marlo::fuzz
