#include "sim/capture/session_capture.h"

#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>

namespace marlo::sim {

using capture::PcapngWriter;

namespace {

constexpr const char* kStreamSuffix = " stream ";

uint64_t now_us() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

std::mutex registry_mutex;
std::map<std::string, std::shared_ptr<SessionCapture>>& registry() {
  static std::map<std::string, std::shared_ptr<SessionCapture>> captures;  // guarded by registry_mutex
  return captures;
}

}  // namespace

const char* capture_node(CaptureInterface interface) {
  switch (interface) {
    case CaptureInterface::Control: return "dev/marlo_com_dev";
    case CaptureInterface::Dfu: return "dev/glink_pkt_marlo_dfu";
    case CaptureInterface::Misc: return "dev/glink_pkt_marlo_custom_data";
    case CaptureInterface::Rma: return "dev/glink_pkt_marlo_rma";
    case CaptureInterface::Uevent: return "dev/uevent";
  }
  return "";
}

uint16_t capture_link_type(CaptureInterface interface) {
  return static_cast<uint16_t>(147 + static_cast<int>(interface));
}

SessionCapture::SessionCapture(const std::string& path, const std::string& setup) : writer_(path) {
  if (!writer_.ok()) throw std::runtime_error("cannot write the capture " + path);
  writer_.section_header({PcapngWriter::text_option(PcapngWriter::kShbUserAppl, "marlo-sim"),
                          PcapngWriter::text_option(PcapngWriter::kOptComment, setup)});
  for (int i = 0; i < kCaptureInterfaces; ++i) {
    auto interface = static_cast<CaptureInterface>(i);
    writer_.interface_description(capture_link_type(interface),
                                  {PcapngWriter::text_option(PcapngWriter::kIfName, capture_node(interface))});
  }
}

void SessionCapture::packet(CaptureInterface interface, Direction direction, const uint8_t* data, size_t length,
                            uint32_t stream) {
  std::vector<PcapngWriter::Option> options{
      PcapngWriter::u32_option(PcapngWriter::kEpbFlags, static_cast<uint32_t>(direction))};
  if (stream != 0) options.push_back(PcapngWriter::u32_option(PcapngWriter::kEpbQueue, stream));
  std::lock_guard<std::mutex> lock(mutex_);
  writer_.enhanced_packet(static_cast<uint32_t>(interface), now_us(), data, length, options);
}

void SessionCapture::life(CaptureInterface interface, Direction direction, const std::string& event, uint32_t stream) {
  std::vector<PcapngWriter::Option> options{
      PcapngWriter::text_option(PcapngWriter::kOptComment,
                                stream == 0 ? event : event + kStreamSuffix + std::to_string(stream)),
      PcapngWriter::u32_option(PcapngWriter::kEpbFlags, static_cast<uint32_t>(direction))};
  if (stream != 0) options.push_back(PcapngWriter::u32_option(PcapngWriter::kEpbQueue, stream));
  std::lock_guard<std::mutex> lock(mutex_);
  writer_.enhanced_packet(static_cast<uint32_t>(interface), now_us(), nullptr, 0, options);
}

LifeEvent parse_life(const std::string& comment) {
  size_t at = comment.rfind(kStreamSuffix);
  size_t digits = at == std::string::npos ? 0 : at + std::strlen(kStreamSuffix);
  if (at == std::string::npos || digits == comment.size() ||
      comment.find_first_not_of("0123456789", digits) != std::string::npos || comment.size() - digits > 9) {
    return LifeEvent{comment, 0};
  }
  return LifeEvent{comment.substr(0, at), static_cast<uint32_t>(std::stoul(comment.substr(digits)))};
}

void attach_capture(const std::string& root, std::shared_ptr<SessionCapture> capture) {
  std::lock_guard<std::mutex> lock(registry_mutex);
  registry()[root] = std::move(capture);
}

void detach_capture(const std::string& root, const SessionCapture* capture) {
  std::lock_guard<std::mutex> lock(registry_mutex);
  auto it = registry().find(root);
  if (it != registry().end() && it->second.get() == capture) registry().erase(it);
}

std::shared_ptr<SessionCapture> capture_of(const std::string& root) {
  std::lock_guard<std::mutex> lock(registry_mutex);
  auto it = registry().find(root);
  return it == registry().end() ? nullptr : it->second;
}

}  // namespace marlo::sim
