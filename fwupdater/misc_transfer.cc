// The misc-data transfer (SHM updater): pushes each misc-data resource into
// the co-processor's memory over "glink_pkt_marlo_custom_data", one packet at
// a time, each answered by a 24-byte response read synchronously on the
// caller's thread, over a transport of its own (never the DFU session's).
//
// Per resource: a start packet (whose answer gives the largest packet the
// co-processor accepts), the data packets, a CRC packet; one finish packet
// after all resources.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/crc32.h"
#include "common/misc_data_wire.h"
#include "daemon/marlo_deamon_log.h"
#include "fwupdater/dfu_protocol.h"
#include "fwupdater/marlo_fw_updater.h"
#include "glink/marlo_glink.h"

using dfu::append_le32;
using dfu::get_le32;
using marlo::history::attempt_kind;
using namespace marlo::misc_data;  // packet kinds and header size

namespace {

constexpr const char* kMiscDataChannel = "glink_pkt_marlo_custom_data";
constexpr uint32_t kMiscReadSize = 44;

constexpr uint32_t kShmResponseSize = 24;
// Packet limit when the start answer gave none.
constexpr uint32_t kDefaultMaxPayload = 4096;
// Calls of prepare_send_data_buffer per resource.
constexpr int kMaxResourceAttempts = 3;

std::vector<uint8_t> shm_header(uint32_t kind, uint32_t type, uint32_t size, uint32_t sequence) {
  std::vector<uint8_t> packet;
  packet.reserve(kShmHeaderSize);
  append_le32(packet, kind);
  append_le32(packet, type);
  append_le32(packet, size);
  append_le32(packet, sequence);
  return packet;
}

std::vector<uint8_t> shm_data_packet(uint32_t kind, uint32_t type, uint32_t sequence, const uint8_t* bytes,
                                     uint32_t count) {
  std::vector<uint8_t> packet = shm_header(kind, type, count, sequence);
  packet.insert(packet.end(), bytes, bytes + count);
  return packet;
}

}  // namespace

void marlo_fw_updater::reportSHM(const std::string& message, Callback::Status status) {
  Callback* cb = misc_callback.load();
  if (cb != nullptr) cb->handleSHMResponse(message, status);
}

void marlo_fw_updater::startMarloSHMUpdater(Callback* cb) {
  MARLO_LOGD("startMarloSHMUpdater");
  misc_callback = cb;
  misc_failure.clear();
  reportSHM("Marlo SHM Updater:: Waiting for Glink channel open", Callback::STATUS_STARTED);
  if (!miscGlinkInterface) {
    glink_conn_config config;
    config.channel_name = kMiscDataChannel;
    config.read_size = kMiscReadSize;
    miscGlinkInterface = std::make_unique<marlo_glink>(config);
    MARLO_LOGD("About to connect with glinkInterface %p without callback",
               static_cast<void*>(miscGlinkInterface.get()));
    // No callbacks are registered, so a failed open is only seen here; the
    // object is kept and the packets then fail one by one.
    if (miscGlinkInterface->connect_interface(false) != 0) {
      reportSHM("Marlo SHM Updater:: Glink channel open failed", Callback::STATUS_CHANNEL_ERROR);
      misc_failure = "misc-data channel open failed";
    }
  }
  truncateMiscFwResources();
  loadAndSaveMiscFw();
}

void marlo_fw_updater::marloMiscDataUpdateReq() {
  MARLO_LOGD("### Starting Marlo Misc Data Resources Update. ###");
  reportSHM("### Starting Marlo Misc Data Resources Update. ###", Callback::STATUS_STARTED);
  glink__shm_packet_response response{};

  int result = 0;
  for (const auto& resource : misc_resources) {
    int attempts = 0;
    do {
      result = prepare_send_data_buffer(resource->type, resource->data, &response);
      ++attempts;
      reportSHM("Finished transfer for type: " + std::to_string(resource->type) +
                    " with response code: " + std::to_string(response.status),
                Callback::STATUS_INFO);
      if (result < 0 && attempts < kMaxResourceAttempts) update_records.resumed(attempt_kind::misc_data);
    } while (result < 0 && attempts < kMaxResourceAttempts);
    if (result >= 0) {
      update_records.served_image(attempt_kind::misc_data, resource->type);
    } else if (misc_failure.empty()) {
      misc_failure = "type " + std::to_string(resource->type) + " not taken after " +
                     std::to_string(kMaxResourceAttempts) + " attempts (status " + std::to_string(response.status) +
                     ")";
    }
  }
  if (misc_resources.empty() && misc_failure.empty()) misc_failure = "no misc-data resources";

  // Only the last resource's outcome decides, and only a finish step that
  // returns 0 is reported as a success; a finish that sent its bytes returns
  // their count and ends the request without a report (endMarloSHMUpdater
  // then reports completion).
  if (result > 0) {
    const int finished = send_finish_data_buffer(&response);
    if (finished == 0) {
      reportSHM("### Marlo Misc Data Resources Update finished. ###", Callback::STATUS_SUCCESS);
    }
    if (finished < 0 && misc_failure.empty()) misc_failure = "finish not taken";
    finishMiscDataRecord();
    return;
  }
  reportSHM("### Marlo Misc Data Resources Update Failed. ###", Callback::STATUS_ERROR);
  if (misc_failure.empty()) misc_failure = "last resource sent nothing";
  finishMiscDataRecord();
}

// The record tells what reached the co-processor, whatever was reported: a
// push whose finish was answered is done even when it reported no success,
// and one that lost a resource failed even when its finish went through.
// A push that a power event cut short is abandoned: the next power-up pushes
// again.
void marlo_fw_updater::finishMiscDataRecord() {
  if (misc_failure.empty()) {
    update_records.finish(attempt_kind::misc_data, "done");
  } else if (misc_abort) {
    update_records.finish(attempt_kind::misc_data, "abandoned: restart");
  } else {
    update_records.finish(attempt_kind::misc_data, "failed: " + misc_failure);
  }
}

void marlo_fw_updater::endMarloSHMUpdater() {
  MARLO_LOGD("endMarloSHMUpdater");
  truncateMiscFwResources();
  if (miscGlinkInterface) miscGlinkInterface.reset();
  try {
    reportSHM("Marlo Misc Data Resources Update Done", Callback::STATUS_ERASE_DONE);
  } catch (const std::runtime_error& e) {
    MARLO_LOGE("FATAL: failed : %s", e.what());
  }
}

int marlo_fw_updater::prepare_send_data_buffer(unsigned short type, std::vector<uint8_t> data,
                                               glink__shm_packet_response* resp) {
  if (data.size() > UINT32_MAX - kShmHeaderSize) {
    MARLO_LOGE("%s : Type:%d resource of %zu bytes is too large", __func__, type, data.size());
    return -1;
  }
  const uint32_t total = static_cast<uint32_t>(data.size());
  auto status = [resp] { return resp != nullptr ? resp->status : 0; };
  MARLO_LOGD("%s : Type:%d and res size:%d ", __func__, type, total);
  reportSHM("Sending Data buffer for type: " + std::to_string(type), Callback::STATUS_INFO);

  const int start = send_start_data_buffer(type, data, resp);
  if (start < 0) {
    MARLO_LOGE("send_start_data_buffer failed with : %d", status());
    reportSHM("Sending Data buffer failed for type: " + std::to_string(type), Callback::STATUS_INFO);
    return -1;
  }

  uint32_t limit = kDefaultMaxPayload;
  if (resp != nullptr && resp->status == 0) {
    limit = resp->max_payload_size;
    MARLO_LOGD("%s: MAX_PAYLOAD_SIZE = %d)", __func__, limit);
  }
  // Unsigned 32-bit arithmetic throughout, as the co-processor expects: the
  // last packet may carry chunk + 1 bytes, one more than a middle packet.
  const uint32_t chunk = limit - kShmHeaderSize;
  const uint8_t* bytes = data.data();

  // Each data packet taken by the co-processor counts in the push's record.
  auto send_data = [&](uint32_t kind, uint32_t sequence, const uint8_t* from, uint32_t count) {
    const int sent = send_data_to_aon(shm_data_packet(kind, type, sequence, from, count), resp);
    if (sent > 0) update_records.served_fragment(attempt_kind::misc_data, count);
    return sent;
  };
  if (limit >= total + kShmHeaderSize || start == 0 || chunk >= total - 1) {
    send_data(SHM_PKT_DATA_LAST, 1, bytes, total);
  } else if (chunk == 0 || chunk >= total) {
    // Reached only with a limit below 17 bytes: no payload fits in a packet
    // (or the subtraction wrapped), and splitting would never end.
    MARLO_LOGE("%s: MAX_PAYLOAD_SIZE = %u leaves no room for data", __func__, limit);
    return -1;
  } else {
    uint32_t offset = 0;
    uint32_t sequence = 1;
    int sent = 0;
    do {
      MARLO_LOGD("%s %d Buffer with payload size :%d ", __func__, sequence, chunk);
      sent = send_data(SHM_PKT_DATA_MORE, sequence, bytes + offset, chunk);
      ++sequence;
      offset += chunk;
    } while (sent > 0 && static_cast<uint64_t>(offset) + chunk < total - 1);
    if (sent < 0) {
      MARLO_LOGE("send_data_to_aon failed for some packets with: %d", status());
      reportSHM("Some packets Data buffer failed for type: " + std::to_string(type), Callback::STATUS_INFO);
      return -1;
    }
    MARLO_LOGE("%s Last buffer with payload size :%d ", __func__, total - offset);
    send_data(SHM_PKT_DATA_LAST, sequence, bytes + offset, total - offset);
  }

  const int crc_result = send_crc_data_buffer(type, std::move(data), resp);
  if (crc_result < 0) {
    MARLO_LOGE("send_crc_data_buffer failed with: %d", status());
    reportSHM("CRC check for Data buffer failed for type: " + std::to_string(type), Callback::STATUS_INFO);
    return -1;
  }
  return crc_result;
}

int marlo_fw_updater::send_start_data_buffer(unsigned short type, std::vector<uint8_t> data,
                                             glink__shm_packet_response* resp) {
  MARLO_LOGD("send_start_data_buffer type:%d", type);
  const int ret = send_data_to_aon(shm_header(SHM_PKT_START, type, static_cast<uint32_t>(data.size()), 0), resp);
  MARLO_LOGD("send_start_data_buffer ret_val:%d", ret);
  return ret;
}

int marlo_fw_updater::send_crc_data_buffer(unsigned short type, std::vector<uint8_t> data,
                                           glink__shm_packet_response* resp) {
  const uint32_t crc = marlo::crc32(data.data(), data.size());
  MARLO_LOGD("send_crc_data_buffer type: %d value: %x", type, crc);
  std::vector<uint8_t> packet = shm_header(SHM_PKT_CRC, type, 4, 0);
  append_le32(packet, crc);
  return send_data_to_aon(std::move(packet), resp);
}

int marlo_fw_updater::send_finish_data_buffer(glink__shm_packet_response* resp) {
  MARLO_LOGD("send_finish_data_buffer");
  return send_data_to_aon(shm_header(SHM_PKT_FINISH, 0, 0, 0), resp);
}

int marlo_fw_updater::send_data_to_aon(std::vector<uint8_t> packet, glink__shm_packet_response* resp) {
  MARLO_LOGD("send_data_to_aon");
  if (!miscGlinkInterface) {
    MARLO_LOGE("glinkInterface != nullptr");
    return -1;
  }
  // A co-processor that went down or restarted since the push began keeps
  // none of it: the rest is not sent, and the next push starts over.
  if (misc_abort) {
    MARLO_LOGE("%s: misc-data push abandoned after a co-processor power event", __func__);
    return -1;
  }
  const int sent = miscGlinkInterface->send_request(packet.data(), static_cast<unsigned int>(packet.size()));
  if (resp == nullptr) return sent;

  uint8_t answer[kShmResponseSize] = {};
  if (miscGlinkInterface->read_response(answer, kShmResponseSize) != 0) {
    MARLO_LOGE("%s: read failed (error %s)", __func__, std::strerror(errno));
    return -1;
  }
  std::memcpy(resp->header, answer, sizeof(resp->header));
  resp->status = static_cast<int32_t>(get_le32(answer + 16));
  resp->max_payload_size = get_le32(answer + 20);
  if (resp->status != 0) {
    MARLO_LOGE("%s: AON(error %d)", __func__, resp->status);
    return -1;
  }
  return sent;
}
