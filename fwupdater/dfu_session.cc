// The host side of the DFU download session: channel set-up, the framing of
// every message, the dispatcher of the co-processor's requests and the three
// answers (image information, image fragment, session end), the error
// callback that resumes an interrupted download, and the end of a session.
//
// The co-processor drives the session; every received request is answered
// on the transport's reader thread from the images loaded at set-up. The
// images are loaded completely before the reader thread can see them, and
// each request serves from the list it found, which stays alive until the
// answer is sent even when the session ends meanwhile.
#include <cutils/properties.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/crc32.h"
#include "daemon/marlo_deamon_log.h"
#include "fwupdater/dfu_protocol.h"
#include "fwupdater/marlo_fw_updater.h"
#include "glink/marlo_glink.h"

// Message ids stay qualified (dfu::SESSION_END_REQ is not the DFU state).
using dfu::append_le32;
using dfu::DFU_HDR_COMMAND_ID;
using dfu::DFU_HDR_CRC;
using dfu::DFU_HDR_MAGIC;
using dfu::DFU_HDR_TOTAL_LENGTH;
using dfu::DFU_HEADER_SIZE;
using dfu::DFU_MAGIC;
using dfu::DFU_MAX_PACKET_SIZE;
using dfu::DFU_OFFSET_RESP_FIXED_PAYLOAD;
using dfu::DFU_REQ_FRAGMENT_LEN;
using dfu::DFU_REQ_IMAGE_ID;
using dfu::DFU_REQ_OFFSET;
using dfu::DFU_RX_BUFFER_SIZE;
using dfu::DFU_SPCL_RESP_CODE;
using dfu::DFU_SPCL_RESP_RECORD;
using dfu::get_le32;
using dfu::put_le32;
using marlo::history::attempt_kind;

namespace {

constexpr const char* kDfuChannel = "glink_pkt_marlo_dfu";
constexpr const char* kDfuUpdateProperty = "persist.vendor.zt_aon.dfu_update";

// The largest fragment served. A fragment travels in one IMG_OFFSET_RESP
// packet, and the channel carries packets of at most DFU_MAX_PACKET_SIZE
// bytes; a request for more could never be delivered, and honouring it would
// let the co-processor make the daemon allocate up to 4 GiB per request. Such
// a request is logged and answered like one past the image's end: the three
// echoed words without data.
constexpr uint32_t kMaxFragmentLen =
    static_cast<uint32_t>(DFU_MAX_PACKET_SIZE - DFU_HEADER_SIZE - DFU_OFFSET_RESP_FIXED_PAYLOAD);

// MG_UPDT_REQ's payload: three words 1, 0, 0 and the text "IMG UPDT".
constexpr uint32_t kUpdateReqPayloadLen = 20;

// The name of a message id that may be received, null for an invalid one.
const char* received_command_name(uint32_t command_id) {
  static const std::array<const char*, 15> names = {nullptr,
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
                                                    nullptr,
                                                    "DFU_SPCL_OPERATION_RESP"};
  return command_id < names.size() ? names[command_id] : nullptr;
}

const marlo_fw_resource* find_image(const fw_resource_list& resources, uint32_t image_id) {
  for (const auto& resource : resources) {
    if (static_cast<uint32_t>(resource->img_id) == image_id) return resource.get();
  }
  return nullptr;
}

std::string seconds_text(double seconds) { return std::to_string(seconds); }  // six fractional digits

}  // namespace

void marlo_fw_updater::reportDFU(const std::string& message, Callback::Status status) {
  Callback* cb = callback.load();
  if (cb != nullptr) cb->handleDFUResponse(message, status);
}

void marlo_fw_updater::startMarloDownloaderWithCallback(Callback* cb) {
  platform::lock_guard session(session_lock);
  {
    platform::lock_guard lock(state_lock);
    session_state.channel_lost = false;  // a loss in an earlier session is not this one's
  }
  callback = cb;
  // The images are loaded aside and published whole before the channel is
  // opened: a co-processor may ask for an image the moment the reader thread
  // starts, and a transport kept from an earlier session may be serving one
  // already. The set-up sends nothing, so no byte on the wire moves.
  auto loading = std::make_shared<fw_resource_list>();
  loadFwResources(std::string(fw_image_dir) + partition_table_file, loading.get());
  const std::shared_ptr<const fw_resource_list> loaded = std::move(loading);
  publishFwResources(loaded);
  if (!glinkInterface) {
    glink_conn_config config;
    config.channel_name = kDfuChannel;
    config.read_size = static_cast<uint32_t>(DFU_RX_BUFFER_SIZE);
    glinkInterface = std::make_unique<marlo_glink>(config);
    MARLO_LOGD("About to register callbacks with glinkInterface %p", static_cast<void*>(glinkInterface.get()));
    glinkInterface->register_cb([this](uint8_t* data, uint32_t length) { conn_res_event_cb(data, length); },
                                [this](glink_interface_error error) { conn_error_cb(error); });
    {
      platform::lock_guard lock(state_lock);
      session_state.connecting = true;
      session_state.open_failed = false;
    }
    glinkInterface->connect_interface(true);
    bool open_failed = false;
    {
      platform::lock_guard lock(state_lock);
      session_state.connecting = false;
      open_failed = std::exchange(session_state.open_failed, false);
    }
    if (open_failed) {
      // Ending the session empties the list; the images stay loaded after
      // it all the same, as when they were loaded after the channel.
      endSession();
      publishFwResources(loaded);
    }
  }
}

void marlo_fw_updater::marloFirmwareUpdateReq() {
  MARLO_LOGD("### Starting Marlo Firmware Update. ###");
  if (!checkForFlashbin()) {
    reportDFU("AON Flash bin file is empty or not present", Callback::STATUS_ERROR);
    update_records.finish(attempt_kind::dfu, "failed: flash image empty or missing");
    return;
  }
  uint8_t payload[kUpdateReqPayloadLen];
  put_le32(payload, 1);
  put_le32(payload + 4, 0);
  put_le32(payload + 8, 0);
  std::memcpy(payload + 12, "IMG UPDT", 8);
  if (send_aon_request(dfu::MG_UPDT_REQ, payload, kUpdateReqPayloadLen) < 1) return;
  property_set(kDfuUpdateProperty, "0");
  update_finished = false;
  reportDFU("### Starting Marlo Firmware Update. ###", Callback::STATUS_STARTED);
  start_time = std::time(nullptr);
}

void marlo_fw_updater::conn_res_event_cb(const uint8_t* data, uint32_t length) {
  MARLO_LOGD("received res or event");
  // Fields beyond the end of a short message read as zero.
  std::array<uint8_t, DFU_RX_BUFFER_SIZE> msg{};
  if (data != nullptr) std::memcpy(msg.data(), data, std::min<size_t>(length, msg.size()));
  if (length > msg.size()) {
    // No message of the protocol is longer: the channel delivers something
    // other than DFU messages, and the session cannot go on.
    MARLO_LOGE("received DFU message of %u bytes, more than %zu: aborting", length, msg.size());
    std::abort();
  }

  const uint32_t command_id = get_le32(&msg[DFU_HDR_COMMAND_ID]);
  const char* name = received_command_name(command_id);
  if (name == nullptr) {
    MARLO_LOGE("GLINK_int invalid cmd id");
    reportDFU("Received INVALID CMD RESP", Callback::STATUS_ERROR);
    return;
  }
  MARLO_LOGD("GLINK_int received %s ", name);

  const uint32_t image_id = get_le32(&msg[DFU_REQ_IMAGE_ID]);
  switch (command_id) {
    case dfu::IMG_INFO_REQ:
      if (callback.load() != nullptr) {
        reportDFU("Time taken till from start = " + seconds_text(timeTaken()), Callback::STATUS_INFO);
        reportDFU("Received MG_UPDT_RESP for ID: " + std::to_string(image_id), Callback::STATUS_INFO);
      }
      sendmarloImageInfoRes(image_id);
      reportDFU("Updating Device firmware with ID: " + std::to_string(image_id), Callback::STATUS_INFO);
      break;
    case dfu::IMG_OFFSET_REQ:
      sendmarloImageOffsetRes(image_id, get_le32(&msg[DFU_REQ_OFFSET]), get_le32(&msg[DFU_REQ_FRAGMENT_LEN]));
      break;
    case dfu::SESSION_END_REQ:
      if (callback.load() != nullptr) {
        reportDFU("Received SESSION_END_REQ", Callback::STATUS_INFO);
        reportDFU("Time taken in sec to update Firmware = " + seconds_text(timeTaken()), Callback::STATUS_INFO);
      }
      sendSessionEndRes();
      break;
    case dfu::DFU_SPCL_OPERATION_RESP: {
      if (callback.load() != nullptr) {
        reportDFU(
            "Received DFU_SPCL_OPERATION_RESP response code: " + std::to_string(get_le32(&msg[DFU_SPCL_RESP_CODE])),
            Callback::STATUS_INFO);
      }
      dfu_spcl_cmd_response response;
      const uint8_t* record = &msg[DFU_SPCL_RESP_RECORD];
      response.operation = get_le32(record);
      response.response_code = get_le32(record + 4);
      response.reserved = get_le32(record + 8);
      response.dfu_state = get_le32(record + 12);
      response.image_id = get_le32(record + 16);
      response.offset = get_le32(record + 20);
      response.fragment_len = get_le32(record + 24);
      handleDFUSplCmdResposnse(&response);
      break;
    }
    case dfu::CANCEL_UPDT_REQ:
    case dfu::CANCEL_UPDT_RESP:
      reportDFU(std::string("Received ") + name, Callback::STATUS_ENDED);
      update_records.finish(attempt_kind::dfu, std::string("failed: ") + name + " from the co-processor");
      break;
    default:  // the remaining valid ids are only reported
      reportDFU(std::string("Received ") + name, Callback::STATUS_INFO);
      break;
  }
}

void marlo_fw_updater::sendmarloImageInfoRes(uint32_t image_id) {
  MARLO_LOGD("sendmarloImageInfoRes %d", image_id);
  const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
  const marlo_fw_resource* image = find_image(*resources, image_id);
  const uint32_t size = image != nullptr ? image->size : 0;
  uint8_t payload[12];
  put_le32(payload, image_id);
  put_le32(payload + 4, size);
  put_le32(payload + 8, 0);
  if (send_aon_request(dfu::IMG_INFO_RESP, payload, sizeof(payload)) >= 1 && image != nullptr) {
    update_records.served_image(attempt_kind::dfu, image_id);
  }
  reportDFU("Updating Image ID: " + std::to_string(image_id) + " size:" + std::to_string(size), Callback::STATUS_INFO);
}

void marlo_fw_updater::sendmarloImageOffsetRes(uint32_t image_id, uint32_t offset, uint32_t fragment_len) {
  MARLO_LOGD("sendmarloImageOffsetRes ID=%d offset=%d fragment_len=%d", image_id, offset, fragment_len);
  // Held until the answer is sent: a session end on another thread empties
  // the updater's list, not this one.
  const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
  const marlo_fw_resource* image = find_image(*resources, image_id);
  const uint32_t size = image != nullptr ? image->size : 0;
  // 32-bit arithmetic on purpose: the product wraps for offsets above about
  // 42 MB, and the progress text shows the wrapped value.
  const uint32_t percent = size != 0 ? (offset * 100u) / size : 0;
  reportDFU("Image ID: " + std::to_string(image_id) + " flash write " + std::to_string(percent) + "% Completed...",
            Callback::STATUS_INFO);

  // Built in place after the header's room, sent without another copy.
  std::vector<uint8_t>& message = offset_answer;
  dfu::start_message(message);
  for (const uint32_t word : {image_id, offset, fragment_len}) append_le32(message, word);
  const size_t image_len = image != nullptr ? image->data.size() : 0;
  size_t copied = 0;
  if (fragment_len != 0 && offset < image_len) {
    if (fragment_len > kMaxFragmentLen) {
      MARLO_LOGE("fragment_len %u exceeds the largest fragment %u; answering without data", fragment_len,
                 kMaxFragmentLen);
    } else {
      // Served straight from the loaded image, zero-filled past its end to keep the length requested.
      copied = std::min<size_t>(fragment_len, image_len - offset);
      message.reserve(DFU_HEADER_SIZE + DFU_OFFSET_RESP_FIXED_PAYLOAD + fragment_len);
      message.insert(message.end(), image->data.begin() + offset, image->data.begin() + offset + copied);
      message.resize(DFU_HEADER_SIZE + DFU_OFFSET_RESP_FIXED_PAYLOAD + fragment_len, 0);
    }
  }
  if (send_aon_request(dfu::IMG_OFFSET_RESP, message) >= 1) update_records.served_fragment(attempt_kind::dfu, copied);
}

void marlo_fw_updater::sendSessionEndRes() {
  MARLO_LOGD("sendSessionEndRes");
  const uint8_t payload[12] = {};
  if (send_aon_request(dfu::SESSION_END_RESP, payload, sizeof(payload)) >= 1) {
    MARLO_LOGD("### Marlo Firmware Update finished. ###");
    property_set(kDfuUpdateProperty, "1");
    update_finished = true;
    reportDFU("### Marlo Firmware Update finished. ###", Callback::STATUS_SUCCESS);
  }
  truncateFwResources();
}

int marlo_fw_updater::send_aon_request(uint32_t command_id, const uint8_t* payload, uint32_t payload_length) {
  std::vector<uint8_t> message;
  dfu::start_message(message);
  if (payload != nullptr) message.insert(message.end(), payload, payload + payload_length);
  return send_aon_request(command_id, message);
}

int marlo_fw_updater::send_aon_request(uint32_t command_id, std::vector<uint8_t>& message) {
  MARLO_LOGD("send_aon_request");
  const size_t payload_length = message.size() - DFU_HEADER_SIZE;
  // A message is one packet; a larger one could not be delivered, and its
  // total length would not fit the 32-bit header word.
  if (payload_length > DFU_MAX_PACKET_SIZE - DFU_HEADER_SIZE) {
    MARLO_LOGE("payload of %zu bytes does not fit in one packet", payload_length);
    return 0;
  }
  put_le32(&message[DFU_HDR_COMMAND_ID], command_id);
  put_le32(&message[DFU_HDR_MAGIC], DFU_MAGIC);
  put_le32(&message[DFU_HDR_TOTAL_LENGTH], static_cast<uint32_t>(message.size()));
  const uint32_t crc = marlo::crc32(message.data(), message.size());
  MARLO_LOGD("send_aon_request %x", crc);
  put_le32(&message[DFU_HDR_CRC], crc);
  if (!glinkInterface) {
    MARLO_LOGE("glinkInterface != nullptr");
    return 0;
  }
  return glinkInterface->send_request(message.data(), static_cast<unsigned int>(message.size()));
}

double marlo_fw_updater::timeTaken() {
  const double taken = std::difftime(std::time(nullptr), start_time.load());
  MARLO_LOGD("Time taken is %.5f seconds.", taken);
  return taken;
}

// An error is handled by what the session is doing when it is reported,
// whichever thread reports it: a failed open during the set-up's connect or a
// power-up's reopen, an error while a resume is sending its request.
void marlo_fw_updater::conn_error_cb(glink_interface_error error) {
  MARLO_LOGE("conn_error_cb =%d", static_cast<int>(error));
  if (error == GLINK_OPEN_FAILED) {
    bool ended_after_connect = false;
    {
      platform::lock_guard lock(state_lock);
      if (session_state.reopening) return;  // the session waits for the next power-up
      if (session_state.connecting) {
        session_state.open_failed = true;
        ended_after_connect = true;
      }
    }
    reportDFU("Marlo dfu channel open failed", Callback::STATUS_CHANNEL_ERROR);
    update_records.finish(attempt_kind::dfu, "failed: DFU channel open failed");
    if (!ended_after_connect) endMarloDownloader();
    return;
  }
  if (update_finished) return;
  if (error == GLINK_SSR) update_records.hung_up(attempt_kind::dfu);
  bool folded = false;
  {
    platform::lock_guard lock(state_lock);
    folded = session_state.resuming;
    if (!folded) {
      session_state.resuming = true;
    } else if (error == GLINK_SSR) {
      session_state.hang_up_meanwhile = true;
    } else {
      session_state.io_error_meanwhile = true;
    }
  }
  if (folded) {
    // The resume in progress decides once its request is out. An I/O error
    // is mostly its own request's failure, reported from inside its send.
    if (error != GLINK_SSR) MARLO_LOGE("resume failed to send; waiting for the co-processor");
    return;
  }
  // The transport reports a hang-up after its reopen attempts: a resume that
  // cannot be sent means they gave up while the co-processor was down.
  if (runClaimedResume()) MARLO_LOGE("DFU channel is closed: the download resumes when marlo powers up");
}

bool marlo_fw_updater::resumeSession() {
  int sent = 0;
  if (!resumeEraseWalk(&sent)) sent = getCurrentDFUStateAndContinueDownload();
  return sent >= 1;
}

bool marlo_fw_updater::runClaimedResume() {
  for (;;) {
    const bool sent = resumeSession();
    if (sent) update_records.resumed(attempt_kind::dfu);
    bool reopened = false;
    {
      platform::lock_guard lock(state_lock);
      dfu_session_state& state = session_state;
      state.channel_lost = !sent;
      // A hang-up meanwhile: the request may have gone to the channel that
      // hung up. A request that went out: an I/O error meanwhile was another
      // request's or an answer's, which this request does not make good. A
      // request that could not be sent: an I/O error meanwhile is its own
      // failure, and only a channel reopened meanwhile gives it a new chance.
      const bool again =
          !update_finished && (state.hang_up_meanwhile || (sent ? state.io_error_meanwhile : state.reopened_meanwhile));
      reopened = !sent && state.reopened_meanwhile;
      state.hang_up_meanwhile = false;
      state.io_error_meanwhile = false;
      state.reopened_meanwhile = false;
      if (!again) {
        state.resuming = false;
        return !sent;
      }
    }
    if (reopened) MARLO_LOGI("marlo powered up: DFU channel reopened, resuming the download");
  }
}

void marlo_fw_updater::resumeDownloadOnPowerUp() {
  platform::lock_guard session(session_lock);
  if (!glinkInterface || !continue_download || update_finished) {
    MARLO_LOGD("no unfinished download, DFU channel left as it is");
    return;
  }
  // An open channel refuses the connect and is left alone: the co-processor
  // did not go down, or the transport reopened it and resumes by itself. A
  // reopen in progress in the transport is waited for first.
  {
    platform::lock_guard lock(state_lock);
    session_state.reopening = true;
  }
  const bool reopened = glinkInterface->connect_interface(true) == 0;
  {
    platform::lock_guard lock(state_lock);
    session_state.reopening = false;
    if (!reopened) return;
    if (session_state.resuming) {
      // The resume in progress takes the reopened channel if its own request
      // could not be sent.
      session_state.reopened_meanwhile = true;
      return;
    }
    // Reopened here before the transport reported its attempts: that report
    // is still to come and resumes on this channel.
    if (!session_state.channel_lost) return;
    session_state.resuming = true;
  }
  MARLO_LOGI("marlo powered up: DFU channel reopened, resuming the download");
  runClaimedResume();
}

void marlo_fw_updater::endMarloDownloader() {
  platform::lock_guard session(session_lock);
  endSession();
}

void marlo_fw_updater::endSession() {
  MARLO_LOGD("endMarloDownloader");
  if (glinkInterface) {
    // The reader thread sends through this pointer: stop it while the
    // pointer still names the transport, then destroy the transport. The
    // images are released from the list; a request being answered keeps
    // its own hold on them.
    glinkInterface->disconnect_interface();
    glinkInterface.reset();
  }
  truncateFwResources();
  try {
    reportDFU("MarloDownloader END", Callback::STATUS_ENDED);
  } catch (const std::runtime_error& e) {
    MARLO_LOGE("FATAL: failed : %s", e.what());
  }
}
