// LogCapture on the host backend: its log sink.
#include "support/log_capture.h"

#include "platform/host_testing.h"

namespace marlo::test {

LogCapture::LogCapture() {
  platform::host::set_log_sink([this](int prio, const char* tag, const char* msg) { add(prio, tag, msg); });
}

LogCapture::~LogCapture() { platform::host::set_log_sink({}); }

}  // namespace marlo::test
