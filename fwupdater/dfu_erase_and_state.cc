// The DFU special operations: the raw erase of each erasable partition that
// opens every download, and the query of the co-processor's DFU state that
// starts the image update or resumes an interrupted one.
//
// Each next request is sent from the handler of the previous answer, so only
// one special operation is outstanding at a time.
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "daemon/marlo_deamon_log.h"
#include "fwupdater/dfu_protocol.h"
#include "fwupdater/marlo_fw_updater.h"

using dfu::put_le32;

namespace {

const char* dfu_state_name(uint32_t state) {
  switch (state) {
    case INIT: return "INIT";
    case INFO_REQ: return "INFO_REQ";
    case OFFSET_REQ: return "OFFSET_REQ";
    case SESSION_END_REQ: return "SESSION_END_REQ";
    case CANCEL_UPDATE_REQ: return "CANCEL_UPDATE_REQ";
    default: return "";
  }
}

// " Image ID: 2 offset: 8192 fragment_len: 4096", each part only when non-zero.
std::string dfu_state_details(const dfu_spcl_cmd_response& response) {
  std::string details;
  const bool shows_image = response.dfu_state == INFO_REQ || response.dfu_state == OFFSET_REQ;
  const bool shows_fragment = response.dfu_state == OFFSET_REQ;
  if (shows_image && response.image_id != 0) details += " Image ID: " + std::to_string(response.image_id);
  if (shows_fragment && response.offset != 0) details += " offset: " + std::to_string(response.offset);
  if (shows_fragment && response.fragment_len != 0)
    details += " fragment_len: " + std::to_string(response.fragment_len);
  return details;
}

}  // namespace

int marlo_fw_updater::eraseAllRAWPartitionAndContinueDownload() {
  MARLO_LOGD("eraseAllRAWPartitionAndContinueDownload");
  if (!glinkInterface) {
    MARLO_LOGE("glinkInterface == nullptr");
    return 0;
  }
  start_time = std::time(nullptr);
  continue_download = true;
  erasing = true;
  return eraseAllRAWPartition();
}

bool marlo_fw_updater::resumeEraseWalk(int* sent) {
  if (!erasing) return false;
  // The erase asked for last may be lost with the channel (or undone by a
  // restart of the co-processor before it ran): every partition without an
  // answer is asked for again, the rest of the walk follows.
  const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
  for (const auto& resource : *resources) {
    if (!resource->erase_answered) resource->erased = false;
  }
  MARLO_LOGE("channel lost during the erases: erasing the partitions without an answer again");
  const int result = eraseAllRAWPartitionAndContinueDownload();
  if (sent != nullptr) *sent = result;
  return true;
}

int marlo_fw_updater::getCurrentDFUStateAndContinueDownload() {
  MARLO_LOGD("getCurrentDFUStateAndContinueDownload");
  if (!glinkInterface) {
    MARLO_LOGE("glinkInterface == nullptr");
    return 0;
  }
  start_time = std::time(nullptr);
  continue_download = true;
  return sendGetDFUStateReq();
}

int marlo_fw_updater::eraseAllRAWPartition() {
  MARLO_LOGD("eraseAllRAWPartition");
  const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
  for (const auto& resource : *resources) {
    if (!resource->isErasable || resource->xml_size == 0) continue;
    // Claimed before the request goes out: the answer is handled on the
    // reader thread, which must already see this partition as done, and an
    // early answer may start a walk there while this one runs.
    if (resource->erased.exchange(true)) continue;
    reportDFU("Erase Requested for partition: " + resource->partition_name, Callback::STATUS_STARTED);
    return sendRAWFlashEraseReq(static_cast<uint32_t>(resource->offset), static_cast<uint32_t>(resource->xml_size));
  }
  erasing = false;
  if (continue_download) return sendGetDFUStateReq();
  reportDFU("### Marlo Flash Erase finished. ###", Callback::STATUS_ERASE_DONE);
  return 0;
}

int marlo_fw_updater::sendRAWFlashEraseReq(uint32_t offset, uint32_t length) {
  MARLO_LOGD("sendRAWFlashEraseReq");
  uint8_t payload[12];
  put_le32(payload, dfu::SPCL_OP_RAW_FLASH_ERASE);
  put_le32(payload + 4, offset);
  put_le32(payload + 8, length);
  const int sent = send_aon_request(dfu::DFU_SPCL_OPERATION_REQ, payload, sizeof(payload));
  reportDFU("### Erasing Marlo Flash Content. ###", Callback::STATUS_STARTED);
  reportDFU("Going for erase from offset: " + std::to_string(offset) + " to Length: " + std::to_string(length) + "...",
            Callback::STATUS_INFO);
  return sent;
}

int marlo_fw_updater::sendGetDFUStateReq() {
  MARLO_LOGD("sendGetDFUStateReq");
  uint8_t payload[12];
  put_le32(payload, dfu::SPCL_OP_GET_DFU_STATE);
  put_le32(payload + 4, 0);
  put_le32(payload + 8, 0);
  const int sent = send_aon_request(dfu::DFU_SPCL_OPERATION_REQ, payload, sizeof(payload));
  reportDFU("### Getting Marlo DFU State. ###", Callback::STATUS_STARTED);
  return sent;
}

void marlo_fw_updater::handleDFUSplCmdResposnse(dfu_spcl_cmd_response* response) {
  MARLO_LOGD("handleDFUSplCmdResposnse");
  if (response == nullptr) return;
  if (response->operation == dfu::SPCL_OP_RAW_FLASH_ERASE) {
    // One erase is outstanding at a time: the answer is that of the first
    // partition asked for and not yet answered.
    const std::shared_ptr<const fw_resource_list> resources = fwResourcesSnapshot();
    for (const auto& resource : *resources) {
      if (resource->erased && !resource->erase_answered.exchange(true)) break;
    }
    // A failed erase is only reported; the erase phase goes on.
    reportDFU(
        response->response_code != 0 ? "### Marlo Flash Erase Failed. ###" : "### Marlo Flash Erase finished. ###",
        Callback::STATUS_INFO);
    eraseAllRAWPartition();
    return;
  }
  if (response->operation != dfu::SPCL_OP_GET_DFU_STATE) return;

  if (response->response_code != 0) {
    reportDFU("Get Marlo DFU State Failed.", Callback::STATUS_ERROR);
    update_records.finish(marlo::history::attempt_kind::dfu,
                          "failed: DFU state query refused, code " + std::to_string(response->response_code));
    return;
  }
  const uint32_t state = response->dfu_state;
  if (continue_download) {
    // Answer the request the co-processor is waiting for, as if it had just
    // arrived; the report follows the answer.
    switch (state) {
      case INIT: marloFirmwareUpdateReq(); break;
      case INFO_REQ: sendmarloImageInfoRes(response->image_id); break;
      case OFFSET_REQ: sendmarloImageOffsetRes(response->image_id, response->offset, response->fragment_len); break;
      case SESSION_END_REQ: sendSessionEndRes(); break;
      default: break;  // a cancel, or a state without a name: nothing to answer
    }
  }
  reportDFU(std::string("Current Marlo DFU state = ") + dfu_state_name(state) + " " + dfu_state_details(*response),
            Callback::STATUS_INFO);
  if (!continue_download) {
    Callback* cb = callback.load();
    if (cb != nullptr) cb->onDFUStateRecived(static_cast<DFUState>(state));
  }
}
