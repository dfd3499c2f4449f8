#include "sim/capture/pcapng_writer.h"

#include <algorithm>

#include "common/le32.h"
#include "sim/capture/pcapng_format.h"

namespace marlo::sim {

namespace {

using namespace pcapng;

void append_u16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

void pad4(std::vector<uint8_t>& out) {
  while (out.size() % 4 != 0) out.push_back(0);
}

}  // namespace

PcapngWriter::Option PcapngWriter::text_option(uint16_t code, const std::string& text) {
  return Option{code, std::vector<uint8_t>(text.begin(), text.end())};
}

PcapngWriter::Option PcapngWriter::u32_option(uint16_t code, uint32_t value) {
  Option o{code, {}};
  append_le32(o.value, value);
  return o;
}

PcapngWriter::PcapngWriter(const std::string& path) : file_(std::fopen(path.c_str(), "wbe")) {}

PcapngWriter::~PcapngWriter() {
  if (file_ != nullptr) std::fclose(file_);
}

void PcapngWriter::section_header(const std::vector<Option>& options) {
  std::vector<uint8_t> body;
  append_le32(body, kByteOrderMagic);
  append_u16(body, 1);            // major version
  append_u16(body, 0);            // minor version
  append_le32(body, 0xffffffff);  // section length: not given
  append_le32(body, 0xffffffff);
  write_block(kShbType, body, options);
}

void PcapngWriter::interface_description(uint16_t link_type, const std::vector<Option>& options) {
  std::vector<uint8_t> body;
  append_u16(body, link_type);
  append_u16(body, 0);
  append_le32(body, 0);  // snaplen: no limit
  write_block(kIdbType, body, options);
}

void PcapngWriter::enhanced_packet(uint32_t interface, uint64_t timestamp_us, const uint8_t* data, size_t length,
                                   const std::vector<Option>& options, size_t original_length) {
  std::vector<uint8_t> body;
  body.reserve(20 + length + 3);
  append_le32(body, interface);
  append_le32(body, static_cast<uint32_t>(timestamp_us >> 32));
  append_le32(body, static_cast<uint32_t>(timestamp_us));
  append_le32(body, static_cast<uint32_t>(length));
  append_le32(body, static_cast<uint32_t>(std::max(length, original_length)));
  if (length > 0) body.insert(body.end(), data, data + length);
  pad4(body);
  write_block(kEpbType, body, options);
}

void PcapngWriter::write_block(uint32_t type, const std::vector<uint8_t>& body, const std::vector<Option>& options) {
  if (!ok()) return;
  std::vector<uint8_t> block;
  append_le32(block, type);
  append_le32(block, 0);  // total length, filled in below
  block.insert(block.end(), body.begin(), body.end());
  if (!options.empty()) {
    for (const Option& o : options) {
      append_u16(block, o.code);
      append_u16(block, static_cast<uint16_t>(o.value.size()));
      block.insert(block.end(), o.value.begin(), o.value.end());
      pad4(block);
    }
    append_le32(block, 0);  // opt_endofopt
  }
  uint32_t total = static_cast<uint32_t>(block.size() + 4);
  put_le32(block.data() + 4, total);
  append_le32(block, total);
  if (std::fwrite(block.data(), 1, block.size(), file_) != block.size() || std::fflush(file_) != 0) failed_ = true;
}

}  // namespace marlo::sim
