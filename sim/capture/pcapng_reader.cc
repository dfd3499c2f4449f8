#include "sim/capture/pcapng_reader.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "capture/pcapng_format.h"
#include "common/le32.h"

namespace marlo::sim {

namespace {

using namespace capture::pcapng;

// The largest message of the virtual device, and a block holding it with
// its framing.
constexpr uint32_t kMaxMessage = 1u << 20;
constexpr uint32_t kMaxBlock = kMaxMessage + 4096;

uint16_t u16_at(const std::vector<uint8_t>& b, size_t offset) {
  return static_cast<uint16_t>(b[offset] | b[offset + 1] << 8);
}

// Calls `each(code, value_offset, length)` for every option in
// [begin, end); false when one runs past `end`.
template <typename F>
bool for_each_option(const std::vector<uint8_t>& b, size_t begin, size_t end, F each) {
  size_t at = begin;
  while (at + 4 <= end) {
    uint16_t code = u16_at(b, at), length = u16_at(b, at + 2);
    if (code == 0) return true;
    size_t padded = (static_cast<size_t>(length) + 3) & ~static_cast<size_t>(3);
    if (at + 4 + padded > end) return false;
    each(code, at + 4, static_cast<size_t>(length));
    at += 4 + padded;
  }
  return at == end;
}

}  // namespace

bool read_capture(const std::string& path, CaptureFile* capture, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot open " + path;
    return false;
  }
  std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  *capture = CaptureFile{};
  auto fail = [error](const std::string& text) {
    *error = text;
    return false;
  };
  size_t at = 0;
  bool have_section = false;
  size_t interface_base = 0;  // interface numbers restart with every section
  int sections = 1;
  while (at < file.size()) {
    uint32_t length = file.size() - at >= 8 ? get_le32(&file[at + 4]) : 0;
    if (have_section && !capture->interfaces.empty() &&
        (file.size() - at < 12 || (length <= kMaxBlock && length > file.size() - at))) {
      capture->truncated = "the file ends inside the block at byte " + std::to_string(at);
      break;
    }
    if (file.size() - at < 12) {
      *error = "truncated block at byte " + std::to_string(at);
      return false;
    }
    uint32_t type = get_le32(&file[at]);
    if (length < 12 || length % 4 != 0 || length > kMaxBlock || length > file.size() - at ||
        get_le32(&file[at + length - 4]) != length) {
      *error = "bad block length " + std::to_string(length) + " at byte " + std::to_string(at);
      return false;
    }
    size_t body = at + 8, end = at + length - 4;
    std::string text_error = "bad options in the block at byte " + std::to_string(at);
    auto text = [&file](size_t offset, size_t n) {
      return std::string(file.begin() + offset, file.begin() + offset + n);
    };
    if (type == kShbType) {
      if (end - body < 16 || get_le32(&file[body]) != kByteOrderMagic) {
        *error = "not a little-endian pcapng section";
        return false;
      }
      if (have_section && sections++ == 1) capture->second_section_at = capture->packets.size();
      if (have_section) interface_base = capture->interfaces.size();
      have_section = true;
      bool ok = for_each_option(file, body + 16, end, [&](uint16_t code, size_t v, size_t n) {
        if (code == 4) capture->application = text(v, n);
        if (code == 1) capture->setup = text(v, n);
      });
      if (!ok) return fail(text_error);
    } else if (!have_section) {
      *error = "no section header first";
      return false;
    } else if (type == kIdbType) {
      if (end - body < 8) return fail(text_error);
      CapturedInterface interface;
      interface.link_type = u16_at(file, body);
      bool ok = for_each_option(file, body + 8, end, [&](uint16_t code, size_t v, size_t n) {
        if (code == 2) interface.name = text(v, n);
      });
      if (!ok) return fail(text_error);
      capture->interfaces.push_back(interface);
    } else if (type == kEpbType) {
      if (end - body < 20) return fail(text_error);
      CapturedPacket p;
      p.interface = static_cast<uint32_t>(interface_base + get_le32(&file[body]));
      p.timestamp_us = static_cast<uint64_t>(get_le32(&file[body + 4])) << 32 | get_le32(&file[body + 8]);
      uint32_t captured = get_le32(&file[body + 12]);
      p.original_length = std::max(captured, get_le32(&file[body + 16]));
      size_t padded = (static_cast<size_t>(captured) + 3) & ~static_cast<size_t>(3);
      if (p.interface >= capture->interfaces.size() || padded > end - body - 20 || p.original_length > kMaxMessage) {
        *error = "bad packet block at byte " + std::to_string(at);
        return false;
      }
      p.data.assign(file.begin() + static_cast<long>(body + 20),
                    file.begin() + static_cast<long>(body + 20 + captured));
      bool ok = for_each_option(file, body + 20 + padded, end, [&](uint16_t code, size_t v, size_t n) {
        if (code == 1) p.comment = text(v, n);
        if (code == 2 && n == 4) p.flags = get_le32(&file[v]);
        if (code == 6 && n == 4) p.stream = get_le32(&file[v]);
      });
      if (!ok) return fail(text_error);
      capture->packets.push_back(std::move(p));
    }  // other block types carry nothing a session needs
    at += length;
  }
  if (!have_section) {
    *error = "empty capture";
    return false;
  }
  if (sections == 1) capture->second_section_at = capture->packets.size();
  return true;
}

}  // namespace marlo::sim
