#pragma once

#include <cstdint>

namespace android {
int64_t elapsedRealtimeNano();
}  // namespace android
