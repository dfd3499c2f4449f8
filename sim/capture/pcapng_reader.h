// Reads back a session capture written by SessionCapture (or by the daemon
// on a device, in the same layout): the section's comment, the interfaces
// and every Enhanced Packet Block in file order. A file that is not such a
// capture (wrong magic, a length that disagrees with its trailer, a packet
// on an undescribed interface) gives an error text and no packets. A file
// that ends inside a block (its writer stopped mid-write) gives the packets
// before that block and says where it ends.
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
  std::vector<uint8_t> data;     // the captured bytes
  uint32_t original_length = 0;  // at least data.size(); more when the message was cut
  uint32_t flags = 0;            // epb_flags; direction in bits 0-1
  uint32_t stream = 0;           // epb_queue: the node connection, from 1; 0 when not given
  std::string comment;           // opt_comment, connection life
};

struct CaptureFile {
  std::string application;  // shb_userappl
  std::string setup;        // shb_comment
  std::vector<CapturedInterface> interfaces;
  std::vector<CapturedPacket> packets;
  // The index of the first packet of a second section (a new recording
  // appended to the file), or packets.size() when there is one section.
  size_t second_section_at = 0;
  // Empty when the file ends after a whole block; otherwise where it stops.
  std::string truncated;
};

// False with `error` set when `path` cannot be read as a capture.
bool read_capture(const std::string& path, CaptureFile* capture, std::string* error);

}  // namespace marlo::sim
