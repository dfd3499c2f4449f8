#include "sim/capture/device_capture.h"

#include <algorithm>

#include "capture/pcapng_writer.h"
#include "common/le32.h"

namespace marlo::sim {

using capture::PcapngWriter;

namespace {

constexpr uint32_t kImgOffsetResp = 6;
constexpr uint32_t kMiscDataMore = 1, kMiscDataLast = 2;
constexpr uint32_t kRmaDataReadResp = 257, kRmaDataWrite = 512;

uint32_t word(const uint8_t* data, size_t length, size_t offset) {
  return length >= offset + 4 ? get_le32(data + offset) : 0xffffffff;
}

}  // namespace

size_t headers_kept_length(CaptureInterface interface, Direction direction, const uint8_t* data, size_t length) {
  size_t kept = length;
  switch (interface) {
    case CaptureInterface::Dfu:
      if (word(data, length, 0) == kImgOffsetResp) kept = 28;
      break;
    case CaptureInterface::Misc:
      if (direction == Direction::Outbound &&
          (word(data, length, 0) == kMiscDataMore || word(data, length, 0) == kMiscDataLast)) {
        kept = 16;
      }
      break;
    case CaptureInterface::Rma:
      if (word(data, length, 8) == kRmaDataWrite || word(data, length, 8) == kRmaDataReadResp) kept = 32;
      break;
    default: break;
  }
  return std::min(kept, length);
}

CaptureFile as_device_capture(const CaptureFile& host, bool headers) {
  CaptureFile device = host;
  device.application = "marlod";
  device.setup.clear();
  if (!headers) return device;
  for (CapturedPacket& p : device.packets) {
    if (p.interface >= static_cast<uint32_t>(kCaptureInterfaces)) continue;
    size_t kept = headers_kept_length(static_cast<CaptureInterface>(p.interface), static_cast<Direction>(p.flags & 3),
                                      p.data.data(), p.data.size());
    p.data.resize(kept);
  }
  return device;
}

bool write_capture(const CaptureFile& capture, const std::string& path, std::string* error) {
  PcapngWriter writer(path);
  using Option = PcapngWriter::Option;
  std::vector<Option> section{PcapngWriter::text_option(PcapngWriter::kShbUserAppl, capture.application)};
  if (!capture.setup.empty()) section.push_back(PcapngWriter::text_option(PcapngWriter::kOptComment, capture.setup));
  writer.section_header(section);
  for (const CapturedInterface& interface : capture.interfaces) {
    writer.interface_description(interface.link_type,
                                 {PcapngWriter::text_option(PcapngWriter::kIfName, interface.name)});
  }
  for (const CapturedPacket& p : capture.packets) {
    std::vector<Option> options;
    if (!p.comment.empty()) options.push_back(PcapngWriter::text_option(PcapngWriter::kOptComment, p.comment));
    options.push_back(PcapngWriter::u32_option(PcapngWriter::kEpbFlags, p.flags));
    if (p.stream != 0) options.push_back(PcapngWriter::u32_option(PcapngWriter::kEpbQueue, p.stream));
    writer.enhanced_packet(p.interface, p.timestamp_us, p.data.data(), p.data.size(), options, p.original_length);
  }
  if (!writer.ok()) *error = "cannot write " + path;
  return writer.ok();
}

}  // namespace marlo::sim
