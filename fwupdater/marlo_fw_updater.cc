// Construction and destruction of the updater, and the image directory paths.
#include "fwupdater/marlo_fw_updater.h"

#include "daemon/marlo_deamon_log.h"

const char* fw_image_dir = "/vendor/firmware_mnt/image/";
const char* partition_table_file = "./partition_table.xml";

// Every member starts zeroed by its initialiser. Constructing the updater
// makes its tag and level the process-wide log settings.
marlo_fw_updater::marlo_fw_updater() {
  log_level = 4;
  marlo_deamon_log::set_tag("marlo_fw_updater");
  marlo_deamon_log::set_level(static_cast<marlo_deamon_log::log_level>(log_level));
  MARLO_LOGD("Set log level: %d\n", log_level);
}

// The transport goes first: its reader thread calls back into this object and
// must be stopped before the resources it reads are destroyed. It is stopped
// while the pointer still names it, because the reader sends through the
// pointer; only then is the pointer cleared and the transport destroyed.
marlo_fw_updater::~marlo_fw_updater() {
  if (glinkInterface) glinkInterface->disconnect_interface();
  glinkInterface.reset();
}
