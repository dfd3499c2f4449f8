#include "sim/dfu_message.h"

#include "common/crc32.h"

namespace marlo::sim {

Bytes make_dfu_message(uint32_t id, const Bytes& payload) {
  Bytes m;
  put_u32(m, 0, id);
  put_u32(m, 4, kDfuMagic);
  put_u32(m, 8, static_cast<uint32_t>(kDfuHeaderSize + payload.size()));
  put_u32(m, 12, 0);
  m.insert(m.end(), payload.begin(), payload.end());
  put_u32(m, 12, crc32(m.data(), m.size()));
  return m;
}

Bytes make_dfu_message(uint32_t id, std::initializer_list<uint32_t> words) {
  Bytes payload;
  for (uint32_t w : words) append_u32(payload, w);
  return make_dfu_message(id, payload);
}

std::string check_dfu_message(const Bytes& m) {
  if (m.size() < kDfuHeaderSize) return "short message of " + std::to_string(m.size()) + " bytes";
  if (get_u32(m, 4) != kDfuMagic) return "bad magic";
  if (get_u32(m, 8) != m.size()) {
    return "length field " + std::to_string(get_u32(m, 8)) + " but " + std::to_string(m.size()) + " bytes arrived";
  }
  Bytes copy = m;
  put_u32(copy, 12, 0);
  if (crc32(copy.data(), copy.size()) != get_u32(m, 12)) return "CRC mismatch";
  return "";
}

std::string dfu_id_name(uint32_t id) {
  static const char* const names[] = {"?",
                                      "MG_UPDT_REQ",
                                      "MG_UPDT_RESP",
                                      "IMG_INFO_REQ",
                                      "IMG_INFO_RESP",
                                      "IMG_OFFSET_REQ",
                                      "IMG_OFFSET_RESP",
                                      "CANCEL_UPDT_REQ",
                                      "CANCEL_UPDT_RESP",
                                      "IMG_UPDT_END_REQ",
                                      "IMG_UPDT_END_RESP",
                                      "SESSION_END_REQ",
                                      "SESSION_END_RESP",
                                      "DFU_SPCL_OPERATION_REQ",
                                      "DFU_SPCL_OPERATION_RESP"};
  return id < sizeof(names) / sizeof(names[0]) ? names[id] : "id " + std::to_string(id);
}

}  // namespace marlo::sim
