#include "capture/pcapng_writer.h"

#include "capture/pcapng_format.h"
#include "common/le32.h"

namespace marlo::capture {

namespace {

using namespace pcapng;

void append_u16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

void pad4(std::vector<uint8_t>& out) {
  while (out.size() % 4 != 0) out.push_back(0);
}

// Starts a block in `block`: its type and a length word filled in by end_block().
void begin_block(std::vector<uint8_t>& block, uint32_t type) {
  append_le32(block, type);
  append_le32(block, 0);
}

std::vector<uint8_t> end_block(std::vector<uint8_t> block, const std::vector<PcapngOption>& options) {
  pad4(block);
  if (!options.empty()) {
    for (const PcapngOption& o : options) {
      append_u16(block, o.code);
      append_u16(block, static_cast<uint16_t>(o.value.size()));
      block.insert(block.end(), o.value.begin(), o.value.end());
      pad4(block);
    }
    append_le32(block, 0);  // opt_endofopt
  }
  const uint32_t total = static_cast<uint32_t>(block.size() + 4);
  put_le32(block.data() + 4, total);
  append_le32(block, total);
  return block;
}

}  // namespace

PcapngOption text_option(uint16_t code, const std::string& text) {
  return PcapngOption{code, std::vector<uint8_t>(text.begin(), text.end())};
}

PcapngOption u32_option(uint16_t code, uint32_t value) {
  PcapngOption o{code, {}};
  append_le32(o.value, value);
  return o;
}

std::vector<uint8_t> section_header_block(const std::vector<PcapngOption>& options) {
  std::vector<uint8_t> block;
  begin_block(block, kShbType);
  append_le32(block, kByteOrderMagic);
  append_u16(block, 1);            // major version
  append_u16(block, 0);            // minor version
  append_le32(block, 0xffffffff);  // section length: not given
  append_le32(block, 0xffffffff);
  return end_block(std::move(block), options);
}

std::vector<uint8_t> interface_block(uint16_t link_type, const std::vector<PcapngOption>& options) {
  std::vector<uint8_t> block;
  begin_block(block, kIdbType);
  append_u16(block, link_type);
  append_u16(block, 0);
  append_le32(block, 0);  // snaplen: no limit
  return end_block(std::move(block), options);
}

std::vector<uint8_t> packet_block(uint32_t interface, uint64_t timestamp_us, const uint8_t* data, size_t captured,
                                  size_t original, const std::vector<PcapngOption>& options) {
  std::vector<uint8_t> block;
  block.reserve(28 + captured + 3 + 64);
  begin_block(block, kEpbType);
  append_le32(block, interface);
  append_le32(block, static_cast<uint32_t>(timestamp_us >> 32));
  append_le32(block, static_cast<uint32_t>(timestamp_us));
  append_le32(block, static_cast<uint32_t>(captured));
  append_le32(block, static_cast<uint32_t>(original));
  if (captured > 0) block.insert(block.end(), data, data + captured);
  return end_block(std::move(block), options);
}

PcapngWriter::PcapngWriter(const std::string& path) : file_(std::fopen(path.c_str(), "wbe")) {}

PcapngWriter::~PcapngWriter() {
  if (file_ != nullptr) std::fclose(file_);
}

void PcapngWriter::write(const std::vector<uint8_t>& block) {
  if (!ok()) return;
  if (std::fwrite(block.data(), 1, block.size(), file_) != block.size() || std::fflush(file_) != 0) failed_ = true;
}

}  // namespace marlo::capture
