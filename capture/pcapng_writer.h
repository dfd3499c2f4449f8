// A minimal pcapng writer: one Section Header Block, Interface Description
// Blocks, Enhanced Packet Blocks, little-endian. The block builders give each
// block's bytes, for a writer that owns its own file; PcapngWriter writes
// them to a stream, each block written and flushed whole. Not thread-safe:
// its user serialises the calls.
//
// The block layout is in pcapng_format.h.
//
// Debian's libpcap writes packets only through its dump API, which produces
// the older pcap format with one link type per file, so it cannot hold the
// five interfaces of a session.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace marlo::capture {

struct PcapngOption {
  uint16_t code;
  std::vector<uint8_t> value;
};

// Option codes used here.
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kShbUserAppl = 4;
constexpr uint16_t kIfName = 2;
constexpr uint16_t kEpbFlags = 2;
constexpr uint16_t kEpbQueue = 6;

PcapngOption text_option(uint16_t code, const std::string& text);
PcapngOption u32_option(uint16_t code, uint32_t value);

std::vector<uint8_t> section_header_block(const std::vector<PcapngOption>& options);
std::vector<uint8_t> interface_block(uint16_t link_type, const std::vector<PcapngOption>& options);
// `captured` bytes of `data` out of a message of `original` bytes.
std::vector<uint8_t> packet_block(uint32_t interface, uint64_t timestamp_us, const uint8_t* data, size_t captured,
                                  size_t original, const std::vector<PcapngOption>& options);

class PcapngWriter {
 public:
  using Option = PcapngOption;
  static constexpr uint16_t kOptComment = capture::kOptComment;
  static constexpr uint16_t kShbUserAppl = capture::kShbUserAppl;
  static constexpr uint16_t kIfName = capture::kIfName;
  static constexpr uint16_t kEpbFlags = capture::kEpbFlags;
  static constexpr uint16_t kEpbQueue = capture::kEpbQueue;
  static Option text_option(uint16_t code, const std::string& text) { return capture::text_option(code, text); }
  static Option u32_option(uint16_t code, uint32_t value) { return capture::u32_option(code, value); }

  // Creates (truncates) `path`; ok() tells whether it could.
  explicit PcapngWriter(const std::string& path);
  ~PcapngWriter();
  PcapngWriter(const PcapngWriter&) = delete;
  PcapngWriter& operator=(const PcapngWriter&) = delete;

  bool ok() const { return file_ != nullptr && !failed_; }

  void section_header(const std::vector<Option>& options) { write(section_header_block(options)); }
  // Interfaces are numbered in the order they are described, from 0.
  void interface_description(uint16_t link_type, const std::vector<Option>& options) {
    write(interface_block(link_type, options));
  }
  // `length` bytes of `data` are recorded; `original_length`, when larger,
  // is the length the message had before it was cut.
  void enhanced_packet(uint32_t interface, uint64_t timestamp_us, const uint8_t* data, size_t length,
                       const std::vector<Option>& options, size_t original_length = 0) {
    write(packet_block(interface, timestamp_us, data, length, std::max(length, original_length), options));
  }

 private:
  void write(const std::vector<uint8_t>& block);

  std::FILE* file_ = nullptr;
  bool failed_ = false;
};

}  // namespace marlo::capture
