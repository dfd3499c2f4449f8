// LogCapture on the host backend: its log sink.
#include "support/log_capture.h"

#include "daemon/marlo_deamon_log.h"
#include "platform/host_testing.h"

namespace marlo::test {

LogCapture::LogCapture() {
  // Lines an earlier capture saw repeated must not be withheld from this one.
  marlo_deamon_log::restart_repeat_counts();
  platform::host::set_log_sink([this](int prio, const char* tag, const char* msg) { add(prio, tag, msg); });
}

LogCapture::~LogCapture() { platform::host::set_log_sink({}); }

}  // namespace marlo::test
