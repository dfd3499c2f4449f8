// The firmware updater: the images it serves, the version check, the DFU
// download session with its special operations, and the misc-data transfer.
//
// One object, owned by the daemon for the life of the process. The daemon's
// thread sets a session up; from then on the co-processor drives it and every
// answer is sent from the transport's reader thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "comhandler/wear_firmware_info.h"
#include "fwupdater/update_history.h"
#include "glink/glink_interface.h"
#include "platform/thread_annotations.h"

namespace platform {
struct file_info;
}

// An image file's bytes: read once, never changed afterwards, and shared by
// every record that names the same file. Empty when no file was read.
class marlo_image_data {
 public:
  marlo_image_data() = default;
  explicit marlo_image_data(std::shared_ptr<const std::vector<uint8_t>> bytes) : bytes_(std::move(bytes)) {}

  size_t size() const { return bytes_ ? bytes_->size() : 0; }
  bool empty() const { return size() == 0; }
  const uint8_t* data() const { return bytes_ ? bytes_->data() : nullptr; }
  const uint8_t* begin() const { return data(); }
  const uint8_t* end() const { return data() + size(); }

 private:
  std::shared_ptr<const std::vector<uint8_t>> bytes_;
};

// One image that the DFU session can serve (a partition of the partition
// table, or one of the two fixed images). Complete when it is published in
// the updater's list; from then on only `erased` changes.
struct marlo_fw_resource {
  int32_t img_id = 0;
  int32_t offset = 0;  // start of the partition on the co-processor's flash
  std::string partition_name;
  std::string image_path;  // as written in the table, without the directory
  uint32_t size = 0;       // bytes in data
  int32_t xml_size = 0;    // partition size from the table
  marlo_image_data data;   // the whole image file
  // Set by the erase walk once it has asked for this partition's erase. The
  // walk runs on the daemon's thread and then on the reader thread, and a
  // co-processor may answer early: the mark is claimed atomically, so each
  // partition is asked for once.
  mutable std::atomic<bool> erased{false};
  // Set on the reader thread when the co-processor has answered this
  // partition's erase (well or not).
  mutable std::atomic<bool> erase_answered{false};
  bool isErasable = false;
};

// The images of one session, in load order. A published list is never
// changed: it is replaced whole.
using fw_resource_list = std::vector<std::shared_ptr<const marlo_fw_resource>>;

// The largest image or misc-data file loaded. A larger one is refused like an
// unreadable one: the daemon holds every such file whole in memory on a
// 32-bit device.
constexpr uint64_t kMaxFwImageSize = 256u * 1024u * 1024u;

// The host's platform facts patched into the flash image's boot loader.
struct platform_info {
  uint32_t debug_policy = 0;
  uint32_t platform_id = 0x22;
  uint32_t major_id = 0xFFFFFFFF;
  uint32_t minor_id = 0xFFFFFFFF;
  uint32_t sub_type = 0;
};

// The firmware versions shipped on the device.
struct marlo_meta_info {
  std::string apps_cochip;
  std::string btfw_cochip;
  std::string dsp_cochip;
};

enum Offload_Type : uint16_t {
  OFFLOAD_BTFW = 0,
  OFFLOAD_NV = 1,
};

// The misc-data files and their kinds, ordered by path.
extern const std::map<std::string, Offload_Type> misc_file_types;

struct marlo_misc_resource {
  uint32_t index = 0;
  uint16_t type = 0;
  std::string path;
  uint32_t size = 0;
  std::vector<uint8_t> data;
};

enum DFUState : uint32_t {
  INIT = 0,
  INFO_REQ = 1,
  OFFSET_REQ = 2,
  SESSION_END_REQ = 3,
  CANCEL_UPDATE_REQ = 4,
};

// The 28-byte record of a DFU_SPCL_OPERATION_RESP, from message offset 16.
struct dfu_spcl_cmd_response {
  uint32_t operation;
  uint32_t response_code;
  uint32_t reserved;
  uint32_t dfu_state;
  uint32_t image_id;
  uint32_t offset;
  uint32_t fragment_len;
};
static_assert(sizeof(dfu_spcl_cmd_response) == 28, "dfu_spcl_cmd_response is 28 bytes on the wire");

// The co-processor's 24-byte answer to each misc-data packet.
struct glink__shm_packet_response {
  uint8_t header[16];
  int32_t status;
  uint32_t max_payload_size;
};
static_assert(sizeof(glink__shm_packet_response) == 24, "glink__shm_packet_response is 24 bytes on the wire");

// Image directory and partition table, joined as they stand.
extern const char* fw_image_dir;
extern const char* partition_table_file;

class marlo_fw_updater {
 public:
  // The daemon's result sink.
  class Callback {
   public:
    enum Status : int32_t {
      STATUS_STARTED = 0,
      STATUS_INFO = 1,
      STATUS_ERASE_DONE = 2,
      STATUS_ERROR = 3,
      STATUS_SUCCESS = 4,
      STATUS_ENDED = 5,
      STATUS_CHANNEL_ERROR = 6,
    };
    virtual void handleDFUResponse(std::string message, Status status) = 0;
    virtual void handleSHMResponse(std::string message, Status status) = 0;
    virtual void onDFUStateRecived(DFUState state) = 0;
    virtual ~Callback() = default;
  };

  marlo_fw_updater();
  ~marlo_fw_updater();
  marlo_fw_updater(const marlo_fw_updater&) = delete;
  marlo_fw_updater& operator=(const marlo_fw_updater&) = delete;

  // Firmware resources and partition table.
  unsigned parsePartitionAndSaveFw(const std::string& path);
  // info, when given, receives the size and identity of the file opened.
  std::vector<uint8_t> readFile(const std::string& path, platform::file_info* info = nullptr);
  bool checkForFlashbin();
  int truncateFwResources();

  // Platform information patch of the flash image.
  platform_info getPlatformInfo();
  void updatePlatformInfo(std::vector<uint8_t>& image, platform_info info);

  // Firmware version check.
  marlo_meta_info readMarloMetaBuildInfo();
  int32_t fw_version_check(wear_firmware_info_t* fw_info);
  int32_t is_psram_noflash(wear_firmware_info_t* fw_info);

  // DFU download session.
  void startMarloDownloaderWithCallback(Callback* cb);
  void marloFirmwareUpdateReq();
  void conn_res_event_cb(const uint8_t* data, uint32_t length);
  void conn_error_cb(glink_interface_error error);
  void sendmarloImageInfoRes(uint32_t image_id);
  void sendmarloImageOffsetRes(uint32_t image_id, uint32_t offset, uint32_t fragment_len);
  void sendSessionEndRes();
  int send_aon_request(uint32_t command_id, const uint8_t* payload, uint32_t payload_length);
  // `message` is made by dfu::start_message, with the payload appended; the
  // header is filled in here.
  int send_aon_request(uint32_t command_id, std::vector<uint8_t>& message);
  void endMarloDownloader();
  double timeTaken();
  // The co-processor has powered up (restart listener thread). While a
  // download is unfinished, reopens its DFU channel when the transport's own
  // reopen attempts gave up during the outage, and resumes the session with a
  // state query, as the transport's reconnect would have. A download that
  // finished or ended, and a channel that is open, are left as they are.
  // May wait for the transport's reopen in progress (seconds on a device).
  void resumeDownloadOnPowerUp();

  // DFU special operations. Each that sends a request returns what the
  // send returned (0 when nothing was sent), so that a resume knows whether
  // its request went out.
  int eraseAllRAWPartitionAndContinueDownload();
  int getCurrentDFUStateAndContinueDownload();
  // After a hang-up during the erases: asks again for every erase not
  // answered and goes on with the download; false when no erase walk runs.
  // `sent`, when given, receives the result of the request sent.
  bool resumeEraseWalk(int* sent = nullptr);
  int eraseAllRAWPartition();
  int sendRAWFlashEraseReq(uint32_t offset, uint32_t length);
  int sendGetDFUStateReq();
  void handleDFUSplCmdResposnse(dfu_spcl_cmd_response* response);

  // Misc data resources.
  unsigned loadAndSaveMiscFw();
  int truncateMiscFwResources();

  // Misc data transfer. One push at a time, on the misc-data channel's own
  // transport, from one thread (the daemon's flash-less worker).
  void startMarloSHMUpdater(Callback* cb);
  void marloMiscDataUpdateReq();
  void endMarloSHMUpdater();
  int prepare_send_data_buffer(unsigned short type, std::vector<uint8_t> data, glink__shm_packet_response* resp);
  int send_start_data_buffer(unsigned short type, std::vector<uint8_t> data, glink__shm_packet_response* resp);
  int send_data_to_aon(std::vector<uint8_t> packet, glink__shm_packet_response* resp);
  int send_crc_data_buffer(unsigned short type, std::vector<uint8_t> data, glink__shm_packet_response* resp);
  int send_finish_data_buffer(glink__shm_packet_response* resp);
  // true: the push in progress sends no further packet (each step fails at
  // once), because the co-processor went down or restarted; false: pushes
  // run normally. Safe from any thread.
  void abortMarloSHMUpdate(bool abort) { misc_abort = abort; }

  // Read-only views for the daemon and tests (the images: a copy of the
  // current list, whose records stay alive as long as the copy).
  fw_resource_list firmwareResources() const { return *fwResourcesSnapshot(); }
  const std::vector<std::unique_ptr<marlo_misc_resource>>& miscResources() const { return misc_resources; }
  int32_t tbxElfOffset() const { return tbx_elf_offset; }

  // The record of update attempts. The daemon begins an attempt when it
  // decides one; the DFU session and the misc-data transfer count what they
  // serve and end it on the outcomes they see (any thread).
  marlo::history::update_history& history() { return update_records; }

 private:
  // Takes an interrupted download up again: the erases not answered, or a
  // state query. True when its request went out.
  bool resumeSession();
  // Runs a resume that this caller has claimed (session_state.resuming set),
  // again for as long as what was reported meanwhile calls for another one,
  // and then releases the claim. True when the channel is lost: the last
  // request could not be sent.
  bool runClaimedResume() EXCLUDES(state_lock);
  // Stops and destroys the DFU transport and releases the images.
  void endSession() REQUIRES(session_lock);
  // Reports a step of the DFU session to the callback, if one is set.
  void reportDFU(const std::string& message, Callback::Status status);
  // Ends the push's record with what reached the co-processor.
  void finishMiscDataRecord();
  // Reports a step of the misc-data transfer to the callback, if one is set.
  void reportSHM(const std::string& message, Callback::Status status);
  // Reads the partition table and the images into `list`, after the records
  // it already holds; publishes nothing.
  unsigned loadFwResources(const std::string& path, fw_resource_list* list);
  // The current list of images; a request takes it once and serves from it.
  std::shared_ptr<const fw_resource_list> fwResourcesSnapshot() const;
  // Makes `list` the current one at once.
  void publishFwResources(std::shared_ptr<const fw_resource_list> list);

  // Threads: the daemon's thread (the one that sets a session up and ends
  // it), the DFU transport's reader thread, and the thread that runs a
  // misc-data push. The session's fields are set on the daemon's thread and
  // read on the reader thread, hence atomic.
  int32_t log_level = 0;  // constructor only
  // Published on the daemon's thread at set-up and replaced by an empty list
  // at the session's end (reader or daemon thread); read on both. The lock
  // is held only to copy or swap the pointer.
  mutable platform::mutex fw_resources_lock;
  std::shared_ptr<const fw_resource_list> fw_resources GUARDED_BY(fw_resources_lock) =
      std::make_shared<const fw_resource_list>();
  std::atomic<time_t> start_time{0};
  std::atomic<bool> continue_download{false};
  // From the start of the erase walk until it has walked past the last
  // erasable partition: a hang-up in between restarts the walk.
  std::atomic<bool> erasing{false};
  std::atomic<bool> update_finished{false};
  std::atomic<Callback*> callback{nullptr};
  // The DFU transport. Set and cleared only on the daemon's thread, and
  // only while no reader thread of it runs: set before connect starts the
  // reader, cleared only after disconnect has joined it (the destructor
  // disconnects first too). The reader thread sends through it; so the
  // pointer never changes while that thread can read it, and needs no lock.
  // The restart listener uses it too (to reopen the channel after a
  // power-up): set-up, end and that use hold session_lock, so the listener
  // never meets a transport being made or destroyed, nor connects it while
  // the daemon's thread does. A holder may join the reader thread, which
  // therefore never takes session_lock.
  std::unique_ptr<glink_interface> glinkInterface;
  platform::mutex session_lock;
  // The fragment answer (IMG_OFFSET_RESP) is built in place here, its
  // fragment copied once from the loaded image, and the buffer is reused
  // from one answer to the next. Only the DFU reader thread touches it: it
  // alone answers the co-processor's requests. Every other message is built
  // in a buffer of its own call, so a request sent from inside a failed
  // answer's error report (a resume) never reuses this one.
  std::vector<uint8_t> offset_answer;

  // What the session is doing when the transport reports an error: it
  // decides how the error is handled, whichever thread reports it.
  struct dfu_session_state {
    // The set-up's connect is running. A failed open reported meanwhile is
    // noted in open_failed, and the set-up ends the session once connect has
    // returned: ending it from inside connect would destroy the transport
    // that is still running the call.
    bool connecting = false;
    bool open_failed = false;
    // A power-up's reopen is running. A failed one leaves the session as it
    // is, waiting for the next power-up: it is neither reported as a channel
    // error nor ended.
    bool reopening = false;
    // A resume is sending its request (one resume at a time). Errors reported
    // meanwhile, its own failed request among them, are noted here and never
    // start a resume of their own, so a request that cannot be sent cannot
    // resume again without bound; the resume decides once its request is out.
    bool resuming = false;
    bool hang_up_meanwhile = false;   // the transport reopened the channel
    bool io_error_meanwhile = false;  // a poll, read or request failed
    bool reopened_meanwhile = false;  // a power-up reopened the channel
    // The last resume could not send its request: the transport's reconnect
    // gave up while the co-processor was down, and only a power-up reopens
    // the channel.
    bool channel_lost = false;
  };
  // A leaf lock, held only to read or change session_state: never across a
  // call into the transport or the callback. Taken after session_lock.
  platform::mutex state_lock;
  dfu_session_state session_state GUARDED_BY(state_lock);
  // Read from the partition table on the daemon's thread while the images
  // are loaded, before they are published.
  int32_t tbx_elf_offset = 0;
  marlo_meta_info meta_info;
  // Loaded and used by the thread that runs the misc-data push.
  std::vector<std::unique_ptr<marlo_misc_resource>> misc_resources;
  // The misc-data transfer's own transport and result sink, never those of
  // the DFU session: a push cannot send on the DFU channel or close it. Used
  // only by the thread that runs the push; the abort flag is set from others.
  std::unique_ptr<glink_interface> miscGlinkInterface;
  std::atomic<Callback*> misc_callback{nullptr};
  std::atomic<bool> misc_abort{false};
  // Why the push in progress cannot succeed, for its record; empty while
  // nothing failed. Used only by the thread that runs the push.
  std::string misc_failure;
  // Thread-safe itself; see update_history.h.
  marlo::history::update_history update_records;
};
