// Path resolution and time scaling of the host backend.
#pragma once

#include <string>

namespace platform::host {

// $MARLO_ROOT followed by the device path; the device path itself when
// MARLO_ROOT is unset or empty.
std::string resolve(const char* device_path);

// The factor MARLO_TIME_SCALE applies to sleeps (1 when unset or invalid).
double time_scale();

}  // namespace platform::host
