// Reads back a session capture written by SessionCapture: the section's
// comment, the interfaces and every Enhanced Packet Block in file order.
// A file that is not such a capture (wrong magic, a length that runs past
// the end or disagrees with its trailer, a packet on an undescribed
// interface) gives an error text and no packets.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlo::sim {

struct CapturedInterface {
  uint16_t link_type = 0;
  std::string name;
};

struct CapturedPacket {
  uint32_t interface = 0;
  uint64_t timestamp_us = 0;
  std::vector<uint8_t> data;
  uint32_t original_length = 0;  // more than data.size() when the message was recorded in part
  uint32_t flags = 0;            // epb_flags; direction in bits 0-1
  std::string comment;           // opt_comment, connection life
};

struct CaptureFile {
  std::string application;  // shb_userappl
  std::string setup;        // shb_comment
  std::vector<CapturedInterface> interfaces;
  std::vector<CapturedPacket> packets;
};

// False with `error` set when `path` cannot be read as a capture.
bool read_capture(const std::string& path, CaptureFile* capture, std::string* error);

}  // namespace marlo::sim
