// A minimal pcapng writer: one Section Header Block, Interface Description
// Blocks, Enhanced Packet Blocks, little-endian, each block written and
// flushed whole. Not thread-safe: the session capture serialises the calls.
//
// The block layout is in pcapng_format.h.
//
// Debian's libpcap writes packets only through its dump API, which produces
// the older pcap format with one link type per file, so it cannot hold the
// five interfaces of a session.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace marlo::sim {

class PcapngWriter {
 public:
  // Option codes used here.
  static constexpr uint16_t kOptComment = 1;
  static constexpr uint16_t kShbUserAppl = 4;
  static constexpr uint16_t kIfName = 2;
  static constexpr uint16_t kEpbFlags = 2;
  static constexpr uint16_t kEpbQueue = 6;

  struct Option {
    uint16_t code;
    std::vector<uint8_t> value;
  };
  static Option text_option(uint16_t code, const std::string& text);
  static Option u32_option(uint16_t code, uint32_t value);

  // Creates (truncates) `path`; ok() tells whether it could.
  explicit PcapngWriter(const std::string& path);
  ~PcapngWriter();
  PcapngWriter(const PcapngWriter&) = delete;
  PcapngWriter& operator=(const PcapngWriter&) = delete;

  bool ok() const { return file_ != nullptr && !failed_; }

  void section_header(const std::vector<Option>& options);
  // Interfaces are numbered in the order they are described, from 0.
  void interface_description(uint16_t link_type, const std::vector<Option>& options);
  // `length` bytes of `data` are recorded; `original_length`, when larger,
  // is the length the message had before it was cut.
  void enhanced_packet(uint32_t interface, uint64_t timestamp_us, const uint8_t* data, size_t length,
                       const std::vector<Option>& options, size_t original_length = 0);

 private:
  void write_block(uint32_t type, const std::vector<uint8_t>& body, const std::vector<Option>& options);

  std::FILE* file_ = nullptr;
  bool failed_ = false;
};

}  // namespace marlo::sim
