// Boot-mode handling and update orchestration: what the daemon does once the
// co-processor runs (or fails to), when a download ends, and when the
// co-processor powers up or down.
#include <android/log.h>
#include <cutils/properties.h>

#include "daemon/DFUCallback.h"
#include "daemon/MarloDaemon.h"
#include "daemon/NoFlashPsramWorker.h"
#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/os.h"
#include "rma/marlo_rma.h"

using marlo::history::attempt_kind;

namespace {

constexpr int kBootModeAttempts = 3;

}  // namespace

marlo::history::attempt_facts MarloDaemon::attemptFacts(const char* decision, const char* why) {
  marlo::history::attempt_facts facts;
  facts.decision = decision;
  facts.why = why;
  facts.boot_mode = booted_mode;
  if (std::optional<wear_firmware_info_t> version = firmwareVersion()) {
    facts.reported = marlo::history::reported_versions(*version);
  }
  const marlo_meta_info shipped = fw_updater->readMarloMetaBuildInfo();
  facts.shipped = {shipped.apps_cochip, shipped.dsp_cochip, shipped.btfw_cochip};
  return facts;
}

void MarloDaemon::finishDownloadRecord() {
  fw_updater->history().finish(attempt_kind::dfu,
                               booted_mode == FLASH ? "done" : "failed: no FLASH boot after the download");
}

void MarloDaemon::handleBootComplete(int mode) {
  property_set("vendor.marlo.boot_complete", "1");
  setFirmwareVersion(com_handler->get_current_aon_fw_version());
  booted_mode = (mode == HOST || mode == FLASH) ? mode : -1;
  if (mode == HOST) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Marlo boot complete in HOST Mode!");
    notifyBootProgress(0);
    handleHostMode();
  } else if (mode == FLASH) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Marlo boot complete in FLASH Mode!");
    notifyBootProgress(1);
    handleFlashMode();
  } else {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Unknown marlo boot mode");
  }
}

void MarloDaemon::handleHostMode() {
  com_handler->set_marlo_boot_status(1);
  std::optional<wear_firmware_info_t> version = firmwareVersion();
  if (!version) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, "invaid version info");
    return;
  }
  if (fw_updater->is_psram_noflash(&*version) == 0) handleNoFlashPsram();
}

void MarloDaemon::handleFlashMode() {
  std::optional<wear_firmware_info_t> version = firmwareVersion();
  if (!version) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr,
                        "failed to get fw version! after re-tries, marlo is running with old firmware");
    fw_updater->history().record(attempt_kind::dfu, attemptFacts("keep", "no version reported"), "done");
    com_handler->set_marlo_boot_status(1);
    return;
  }
  __android_log_print(ANDROID_LOG_INFO, nullptr, "do fw_version_check");
  if (fw_updater->fw_version_check(&*version) < 0) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Version mis-match, switch2HOST, do fW_update");
    fw_updater->history().begin(attempt_kind::dfu, attemptFacts("download", "versions differ"));
    notifyBootProgress(2);
    changeBootmode(HOST);
    startFirmwareUpdate();
    return;
  }
  fw_updater->history().record(attempt_kind::dfu, attemptFacts("up-to-date", "versions match"), "done");
  com_handler->set_marlo_boot_status(1);
  notifyBootProgress(4);
}

void MarloDaemon::changeBootmode(int mode) {
  com_handler->set_marlo_boot_mode(mode);
  com_handler->marloUnload();
  com_handler->marlocomSpiBusy();

  // The running daemon's PIL state decides; this one when none is running.
  MarloDaemon* running = g_marlo_daemon.load();
  if (running == nullptr) running = this;
  bool booted = false;
  for (int attempt = 0; attempt < kBootModeAttempts && !booted; ++attempt) {
    com_handler->marloSoftReset();
    int loaded = com_handler->marloLoad();
    platform::sleep(1);
    booted = (loaded == 0 && running->getMarloPILStatus() == 1);
    if (!booted) platform::sleep(1);
  }
  booted_mode = booted ? mode : -1;
  if (!booted) {
    com_handler->marlocomSpiFree();
    return;
  }
  if (mode != FLASH) {
    // The download that follows owns the SPI bus: it stays marked busy.
    __android_log_print(ANDROID_LOG_INFO, nullptr, "Marlo boot complete in HOST Mode!");
    notifyBootProgress(0);
    return;
  }
  __android_log_print(ANDROID_LOG_INFO, nullptr, "Marlo boot complete in FLASH Mode!");
  notifyBootProgress(1);
  property_set("vendor.marlo.boot_complete", "1");
  com_handler->marlocomSpiFree();
  com_handler->set_marlo_boot_status(1);
}

int MarloDaemon::defaultHandler() {
  if (com_handler->get_marlo_boot_mode() != FLASH) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Marlo boot failed in Host Mode.");
    return -1;
  }
  com_handler->set_marlo_boot_mode(HOST);
  com_handler->marloReset();
  int loaded = com_handler->marloLoad();
  platform::sleep(1);
  if (loaded == 0 && getMarloPILStatus() == 1) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Fallback: Marlo boot complete in Host Mode, try DFU");
    booted_mode = HOST;
    fw_updater->history().begin(attempt_kind::dfu, attemptFacts("fallback", "FLASH boot failed, HOST boot worked"));
    notifyBootProgress(0);
    property_set("vendor.marlo.boot_complete", "1");
    com_handler->marlocomSpiFree();
    startFirmwareUpdate();
    return 0;
  }
  __android_log_print(ANDROID_LOG_ERROR, nullptr, "Marlo boot fail even on fallback to host from flash");
  g_daemon_state = 0;
  return -1;
}

int MarloDaemon::startFirmwareUpdate() {
  if (!fw_updater) return 0;
  fw_updater->startMarloDownloaderWithCallback(dfu_callback.get());
  fw_updater->eraseAllRAWPartitionAndContinueDownload();
  notifyBootProgress(2);
  return 0;
}

int MarloDaemon::startMiscDataFirmwareUpdate() {
  if (!fw_updater) return 0;
  fw_updater->history().begin(attempt_kind::misc_data, attemptFacts("push", "not pushed since the last power-up"));
  fw_updater->startMarloSHMUpdater(dfu_callback.get());
  fw_updater->marloMiscDataUpdateReq();
  platform::sleep(2);
  fw_updater->endMarloSHMUpdater();
  return 0;
}

// The flash-less co-processor has one owner, the worker: the boot path hands
// it the job and goes on to serve the reset property, while power events
// that arrive meanwhile reach the same worker and are handled in order with
// the boot's job. The boot path does not wait for the job: a co-processor
// that keeps restarting keeps the worker busy for as long as it does.
void MarloDaemon::handleNoFlashPsram() {
  // Also on the boot path: the next power-down must withdraw a success that
  // this push reports.
  noflash_psram = true;
  noflash_worker->requestBootJob();
}

void MarloDaemon::pushNoFlashPsramMiscData() {
  __android_log_print(ANDROID_LOG_INFO, nullptr, "found NOFLASH_PSRAM AON, do misc_data_fW_update");
  if (!noflash_worker->miscDataPushed()) {
    startMiscDataFirmwareUpdate();
    return;
  }
  fw_updater->history().record(attempt_kind::misc_data,
                               attemptFacts("skip", "vendor.zt_aon.misc_update says pushed since the power-up"),
                               "done");
}

void MarloDaemon::onMiscDataPushStarted() { noflash_worker->pushStarting(); }

void MarloDaemon::onMiscDataPushSucceeded() {
  if (!noflash_worker->pushSucceeded()) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, "misc-data push finished before the last power event, not counted");
  }
}

void MarloDaemon::on_aon_up() {
  marlo_deamon_log::print(ANDROID_LOG_INFO, nullptr, "%s: called\n", "on_aon_up");
  std::optional<wear_firmware_info_t> version = firmwareVersion();
  if (fw_updater->is_psram_noflash(version ? &*version : nullptr) == 0) {
    noflash_psram = true;
    // A co-processor that came up holds none of the misc data: a success of
    // an earlier push no longer counts, and the worker pushes again.
    noflash_worker->powerUp();
  }
  // A download whose channel was lost for good while the co-processor was
  // down (an outage longer than the transport's reopen attempts) is taken up
  // again now; any other download, or none, is left alone.
  fw_updater->resumeDownloadOnPowerUp();
}

void MarloDaemon::on_aon_down() {
  marlo_deamon_log::print(ANDROID_LOG_INFO, nullptr, "%s: called\n", "on_aon_down");
  fw_updater->history().restarted();
  stopNoFlashPsramWork();
}

// The push in progress (boot path included) stops; the next power-up pushes
// the misc data again.
void MarloDaemon::stopNoFlashPsramWork() { noflash_worker->powerDown(noflash_psram); }
