// Kernel uevents as the virtual device delivers them: one datagram to the
// daemon's socket at <root>/dev/uevent.
#pragma once

#include <string>

namespace marlo::sim {

// MARLO_EVENT values the driver announces.
constexpr int kEventPowerDown = 1;
constexpr int kEventPowerUp = 4;

// "change@/devices/platform/marlo_com_dev\0ACTION=change\0MARLO_EVENT=<n>\0"
std::string marlo_uevent(int event);

// Sends one datagram; false when nobody listens.
bool send_uevent(const std::string& root, const std::string& message);

// Fault: the next uevent the daemon receives is lost in a socket overrun
// (its receive fails with ENOBUFS; see the host backend's uevent receive).
bool arm_uevent_overrun(const std::string& root);

}  // namespace marlo::sim
