// Start-up and co-processor boot: the PIL device search, TWM exit handling,
// the platform check, the boot in the current boot mode, and the
// reset-property loop of the main thread.
#include "daemon/MarloDaemon.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <android/log.h>
#include <cutils/properties.h>

#include "capture/recorder.h"
#include "daemon/DFUCallback.h"
#include "daemon/NoFlashPsramWorker.h"
#include "daemon/SSRHandler.h"
#include "daemon/marlo_deamon_log.h"
#include "fwupdater/marlo_fw_updater.h"
#include "platform/os.h"
#include "platform/unique_fd.h"
#include "rma/marlo_rma.h"

using marlo::history::attempt_kind;

std::atomic<MarloDaemon*> g_marlo_daemon{nullptr};
std::atomic<int32_t> g_daemon_state{5};

namespace {

constexpr const char* kRemoteprocDir = "/sys/class/remoteproc/";
constexpr const char* kTwmExitFile = "/sys/class/pmic-lpm/pmic_twm_exit";
constexpr const char* kPlatformSubtypeFile = "/sys/devices/soc0/platform_subtype_id";
constexpr const char* kMarloRprocName = "soc:zeno,rproc-marlo";
constexpr size_t kMarloRprocNameLength = 20;
constexpr size_t kPilReadSize = 256;

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

MarloDaemon::MarloDaemon()
    : com_handler(std::make_unique<MarloComHandler>()),
      fw_updater(std::make_unique<marlo_fw_updater>()),
      rma(std::make_unique<marlo_rma>()),
      dfu_callback(std::make_unique<DFUCallback>(com_handler.get(), this)) {
  NoFlashPsramWorker::Steps steps;
  steps.push = [this] { pushNoFlashPsramMiscData(); };
  steps.startRma = [this] {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "starting rma connection");
    rma->startMarloRmaConnection();
  };
  steps.abortPush = [this](bool abort) { fw_updater->abortMarloSHMUpdate(abort); };
  noflash_worker = std::make_unique<NoFlashPsramWorker>(std::move(steps));
}

// Stopped in the order of who calls whom: the restart listener calls into the
// worker and the updater; the worker uses the updater and the RMA client; the
// updater's DFU reader calls back into the DFU callback and this daemon, so
// it is joined while both are still whole.
MarloDaemon::~MarloDaemon() {
  ssr_handler.reset();
  noflash_worker.reset();
  fw_updater.reset();
}

std::optional<wear_firmware_info_t> MarloDaemon::firmwareVersion() const {
  platform::lock_guard lock(fw_version_lock);
  return fw_version;
}

void MarloDaemon::setFirmwareVersion(std::unique_ptr<wear_firmware_info_t> record) {
  platform::lock_guard lock(fw_version_lock);
  if (record) {
    fw_version = *record;
  } else {
    fw_version.reset();
  }
}

void MarloDaemon::startMarloDaemon() {
  __android_log_print(ANDROID_LOG_INFO, nullptr, "Start Marlo Daemon");
  marlo::capture::poll_property();        // before the first message, so that a capture holds the whole boot
  marlo_rma::remove_stale_temporaries();  // before the RMA channel can be served
  g_marlo_daemon = this;
  g_daemon_state = 1;
  getMarloPILDevice();
  // The boot-time work that can last (a flash-less push, a download) runs
  // on its own threads, so the main thread gets here within the boot
  // sequence's bounded control-device steps, whatever the co-processor does.
  if (initMarlo() == 0) g_daemon_state = 3;
  for (;;) {
    serviceResetProperty();
    marlo::capture::poll_property();
    marlo_deamon_log::flush_repeat_summaries();
    fw_updater->history().checkpoint();
    platform::sleep(1);
  }
}

void MarloDaemon::serviceResetProperty() {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("vendor.marlo_reset", value, nullptr);
  if (std::atoi(value) != 1) return;
  __android_log_print(ANDROID_LOG_DEBUG, nullptr, "\t***** Marlo Reset Start *****\t");
  // The reset takes the co-processor down: the flash-less work in progress
  // (the boot-time push included) stops first, as on a power-down, so that
  // none of its packets races the reset. The power-up that follows the
  // reset brings a complete push and the RMA client, as after any restart.
  stopNoFlashPsramWork();
  fw_updater->history().restarted();
  MarloComHandler::getInstance()->marloReset();
  property_set("vendor.marlo_reset", "0");
}

int MarloDaemon::getMarloPILDevice() {
  // Zeroed once for the whole search, with a spare byte that keeps the name
  // terminated however long the file is.
  char name[kPilReadSize + 1] = {};
  std::unique_ptr<DIR, DirCloser> dir(platform::opendir(kRemoteprocDir));
  if (!dir) return 1;
  while (struct dirent* entry = readdir(dir.get())) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Dir: %s", entry->d_name);
    if (entry->d_type != DT_DIR && entry->d_type != DT_LNK) continue;
    if (std::strncmp(entry->d_name, "remoteproc", 10) != 0) continue;

    // Kernel paths live in 50-byte buffers; an entry whose path does not fit
    // cannot be opened.
    char name_path[50] = {};
    bool fits = std::snprintf(name_path, sizeof(name_path), "/sys/class/remoteproc//%s/name", entry->d_name) <
                static_cast<int>(sizeof(name_path));
    std::unique_ptr<FILE, FileCloser> file(fits ? platform::fopen(name_path, "r") : nullptr);
    if (!file) {
      __android_log_print(ANDROID_LOG_ERROR, nullptr, "Unable to open file %s", name_path);
      continue;
    }
    std::fseek(file.get(), 0, SEEK_SET);
    size_t ignored = std::fread(name, 1, kPilReadSize, file.get());
    (void)ignored;
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "read: %s", name);
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "PIL device: %s - %s", name_path, name);
    if (std::memcmp(name, kMarloRprocName, kMarloRprocNameLength) == 0) {
      std::memset(pil_state_path, 0, sizeof(pil_state_path));
      if (std::snprintf(pil_state_path, sizeof(pil_state_path), "/sys/class/remoteproc//%s/state", entry->d_name) >=
          static_cast<int>(sizeof(pil_state_path))) {
        pil_state_path[0] = '\0';  // a cut path would name another file
      }
      __android_log_print(ANDROID_LOG_DEBUG, nullptr, "PATH %s", pil_state_path);
      return 0;
    }
  }
  return 1;
}

int MarloDaemon::getMarloPILStatus() {
  char state[kPilReadSize + 1] = {};
  std::unique_ptr<FILE, FileCloser> file(platform::fopen(pil_state_path, "r"));
  if (!file) return 2;
  std::fseek(file.get(), 0, SEEK_SET);
  size_t ignored = std::fread(state, 1, kPilReadSize, file.get());
  (void)ignored;
  marlo_deamon_log::print(ANDROID_LOG_DEBUG, nullptr, "marlofw state: %s", state);
  if (std::strncmp(state, "running", 7) == 0) return 1;
  if (std::strncmp(state, "offline", 7) == 0) return 0;
  return 2;
}

bool MarloDaemon::isTWMexit() {
  const platform::unique_fd fd(platform::open(kTwmExitFile, O_RDONLY));
  // Descriptor 0 is a good descriptor (the process entry keeps the standard
  // descriptors open, so it is not handed out here in practice).
  if (!fd) return false;
  char text[21] = {};  // 20 bytes read at most, always terminated
  int state = -1;
  if (platform::pread(fd.get(), text, 20, 0) >= 0) {
    std::sscanf(text, "%d", &state);
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s: Twm exit state = %d", "isTWMexit", state);
  } else {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "%s: reading twm_exit fd failed", "isTWMexit");
  }
  return state == 1;
}

int MarloDaemon::platformSubtypeCheck() {
  const platform::unique_fd fd(platform::open(kPlatformSubtypeFile, O_RDONLY));
  if (!fd) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Unable to open %s\n", kPlatformSubtypeFile);
    return -1;
  }
  char text[3] = {};
  const ssize_t n = platform::read(fd.get(), text, 2);
  if (n < 0) {
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "Unable to read %s\n", kPlatformSubtypeFile);
    return -1;
  }
  text[n] = '\0';
  return std::atoi(text) != 0 ? -19 : 0;
}

int MarloDaemon::initMarlo() {
  if (isTWMexit()) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "TWM/RTOS exit,PIL will save dump only if it is crash");
    property_set("persist.vendor.ssr.enable_ramdumps", "1");
    com_handler->marloTWMexit();
    com_handler->cmd_save_aon_dump();
    property_set("persist.vendor.ssr.enable_ramdumps", "0");
  }
  g_daemon_state = 2;
  registerMarloSSREvent();
  return startMarloPIL();
}

void MarloDaemon::registerMarloSSREvent() {
  __android_log_print(ANDROID_LOG_ERROR, nullptr, "%s: called\n", "registerMarloSSREvent");
  if (ssr_handler) return;
  ssr_handler = std::make_unique<SSRHandler>(this);
}

int MarloDaemon::startMarloPIL() {
  __android_log_print(ANDROID_LOG_INFO, nullptr, "Start Marlo loader\n");
  int subtype = platformSubtypeCheck();
  if (subtype != 0) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, "platform subtype: %d is not supported, skip marlo PIL", subtype);
    return -19;
  }
  __android_log_print(ANDROID_LOG_INFO, nullptr, "AON present and supported platform subtype: %d\n", 0);

  int mode = com_handler->get_marlo_boot_mode();
  if (mode == HOST) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, " Marlo is in HOST Mode!\n");
    notifyBootProgress(0);
    notifyBootProgress(4);
  } else if (mode == FLASH) {
    __android_log_print(ANDROID_LOG_INFO, nullptr, " Marlo is in FLASH Mode!\n");
    notifyBootProgress(1);
    booted_mode = FLASH;
    char value[PROPERTY_VALUE_MAX] = {};
    // Unset reads as "0" here; the update record tells the two apart.
    const bool update_flag_set = property_get("persist.vendor.zt_aon.dfu_update", value, "") > 0;
    if (std::atoi(value) != 1) {
      notifyBootProgress(2);
      __android_log_print(ANDROID_LOG_INFO, nullptr, "zt_aon.dfu_update is 0, do fW_update");
      recordUnfinishedUpdateDecision(update_flag_set ? value : nullptr);
      changeBootmode(HOST);
      startFirmwareUpdate();
      return 0;
    }
    notifyBootProgress(4);
  }

  if (getMarloPILStatus() != 1) {
    com_handler->marlocomSpiBusy();
    int loaded = com_handler->marloLoad();
    platform::sleep(1);
    // The SPI bus stays marked busy on the fall-back path.
    if (loaded != 0 || getMarloPILStatus() != 1) return defaultHandler();
    com_handler->marlocomSpiFree();
  }
  handleBootComplete(com_handler->get_marlo_boot_mode());
  return 0;
}

// A FLASH boot without "persist.vendor.zt_aon.dfu_update" = 1: with the
// property "0", a download started and did not finish (the co-processor's
// DFU state says where it stands); unset, none was ever recorded.
void MarloDaemon::recordUnfinishedUpdateDecision(const char* update_flag) {
  if (update_flag == nullptr) {
    fw_updater->history().begin(
        attempt_kind::dfu, attemptFacts("download", "persist.vendor.zt_aon.dfu_update unset: no download recorded"));
    return;
  }
  const std::string why =
      std::string("persist.vendor.zt_aon.dfu_update is ") + update_flag + ": the last download did not finish";
  fw_updater->history().begin(attempt_kind::dfu, attemptFacts("resume", why.c_str()));
}

void MarloDaemon::notifyBootProgress(int code) {
  if (BootProgressObserver* observer = boot_progress_observer.load()) observer->onBootProgress(code);
}
