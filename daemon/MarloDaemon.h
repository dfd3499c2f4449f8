// The daemon: start-up, co-processor boot, boot-mode decisions and update
// orchestration. One instance lives for the whole process.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "comhandler/MarloComHandler.h"
#include "comhandler/wear_firmware_info.h"
#include "fwupdater/update_history.h"
#include "platform/thread_annotations.h"

class DFUCallback;
class marlo_fw_updater;
class NoFlashPsramWorker;
class marlo_rma;
class SSRHandler;

// Told of each step of the boot and update flow. Codes: 0 HOST mode, 1 FLASH
// mode, 2 firmware update starting, 3 download finished and switching to
// FLASH, 4 firmware current.
class BootProgressObserver {
 public:
  virtual void onBootProgress(int code) = 0;
  virtual ~BootProgressObserver() = default;
};

class MarloDaemon {
 public:
  MarloDaemon();
  ~MarloDaemon();
  MarloDaemon(const MarloDaemon&) = delete;
  MarloDaemon& operator=(const MarloDaemon&) = delete;

  // Boots the co-processor and then serves the reset property; never returns.
  [[noreturn]] void startMarloDaemon();
  int initMarlo();
  bool isTWMexit();
  int getMarloPILDevice();
  int getMarloPILStatus();
  int platformSubtypeCheck();
  int startMarloPIL();
  void registerMarloSSREvent();

  // Boot-mode handling and update orchestration.
  void handleBootComplete(int mode);
  void handleHostMode();
  void handleFlashMode();
  void changeBootmode(int mode);
  int defaultHandler();
  // Hands the flash-less co-processor's push and RMA client to the worker
  // (boot path, main thread); returns without waiting for them.
  void handleNoFlashPsram();
  int startFirmwareUpdate();
  int startMiscDataFirmwareUpdate();
  void on_aon_up();
  void on_aon_down();
  // A misc-data push started / reported success: the flash-less worker,
  // which owns "vendor.zt_aon.misc_update", sets it to "0" / to "1" unless a
  // power event came after the push started.
  void onMiscDataPushStarted();
  void onMiscDataPushSucceeded();
  // The switch to FLASH mode after a download has been tried (DFU reader):
  // ends the download's record, done when the co-processor booted in FLASH.
  void finishDownloadRecord();

  // Called with each boot-progress code; the daemon installs none itself.
  void setBootProgressObserver(BootProgressObserver* observer) { boot_progress_observer = observer; }
  void notifyBootProgress(int code);

  // One pass of the reset-property loop: resets the co-processor when
  // "vendor.marlo_reset" is 1 and writes "0" back. The flash-less work in
  // progress is stopped before the reset, as on a power-down.
  void serviceResetProperty();

  const char* pilStatePath() const { return pil_state_path; }
  // A copy of the running firmware's version record of the last boot
  // completion; empty before it and when that query failed. Any thread.
  std::optional<wear_firmware_info_t> firmwareVersion() const;
  marlo_fw_updater* updater() const { return fw_updater.get(); }

 private:
  // One job's push on the worker thread: misc data unless already pushed.
  void pushNoFlashPsramMiscData();
  // Replaces the version record with `record` (none when null). Boot path.
  void setFirmwareVersion(std::unique_ptr<wear_firmware_info_t> record);
  // The co-processor goes down (power-down event or reset): the worker's
  // push in progress stops and "vendor.zt_aon.misc_update" is withdrawn.
  void stopNoFlashPsramWork();
  // The facts of an update attempt decided now: the boot mode last known,
  // the versions the co-processor reported and the versions shipped.
  marlo::history::attempt_facts attemptFacts(const char* decision, const char* why);
  // Begins the record of the download that a FLASH boot starts because no
  // download is recorded as finished; `update_flag` is the value of
  // "persist.vendor.zt_aon.dfu_update", null when it is unset.
  void recordUnfinishedUpdateDecision(const char* update_flag);

  // Shared between the main thread, the restart listener, the flash-less
  // worker and the updater's reader thread without a lock: every such field
  // is atomic. The PIL state path is written once, before those threads
  // start. The owning pointers below, but the restart listener's, are set
  // by the constructor and cleared only by the destructor; what they point
  // to says how it is shared.
  std::atomic<bool> noflash_psram{false};
  // The boot mode the co-processor last completed a boot in, -1 when
  // unknown (a switch failed). Written by the boot path and by the switch
  // to FLASH after a download; read for the update records.
  std::atomic<int> booted_mode{-1};
  char pil_state_path[50] = {};
  std::unique_ptr<MarloComHandler> com_handler;
  std::unique_ptr<marlo_fw_updater> fw_updater;
  std::unique_ptr<marlo_rma> rma;  // started only on the flash-less worker's thread
  // The version record, a value: written on each boot completion by the
  // main thread, copied out by readers (the restart listener among them).
  mutable platform::mutex fw_version_lock;
  std::optional<wear_firmware_info_t> fw_version GUARDED_BY(fw_version_lock);
  std::atomic<BootProgressObserver*> boot_progress_observer{nullptr};
  // The updater's result sink. It holds no state of its own, so one instance
  // serves every update the daemon starts.
  std::unique_ptr<DFUCallback> dfu_callback;
  // Runs every misc-data push and RMA client start of a flash-less
  // co-processor, on its own thread. Stopped before the updater and the RMA
  // client it uses go away.
  std::unique_ptr<NoFlashPsramWorker> noflash_worker;
  // The restart listener and its thread, which calls into everything above:
  // declared after it and stopped first. Created once by the main thread.
  std::unique_ptr<SSRHandler> ssr_handler;
};

// The running daemon, for code without a daemon pointer at hand.
extern std::atomic<MarloDaemon*> g_marlo_daemon;
// Status word for inspection: 5 not started, 1 started, 2 initialising,
// 3 initialised, 0 boot failed even after the fall-back to HOST mode.
extern std::atomic<int32_t> g_daemon_state;
