// The daemon's capture of the wire: what it sends and receives on the
// control device, the packet channels and the uevent socket, written as
// pcapng files in the virtual device's capture layout (five interfaces, the
// same link types, directions and connection-life comments), so that the
// project's dissector reads a device's capture as it reads a host one.
//
// The property "persist.vendor.marlo.capture" selects it: unset or "0" off,
// "1" headers (every message's header and protocol words, none of the image,
// misc-data or persistent-memory bytes: message_cut.h), "2" full. Each
// change of the value starts a new capture session and file; "0" ends the
// session, syncing its file.
//
// Recording never holds the wire up: the thread that sends or receives copies
// the message into a bounded queue (or drops and counts it) and one writer
// thread writes the files (capture_limits.h). A file that cannot be created
// (no directory, read-only storage, no permission) gives one log line and the
// capture stays off until the property changes; a write that fails (a full
// disk) drops its messages, counted like the queue's.
#pragma once

#include <string>

namespace marlo::capture {

// Reads the property and applies it when its value changed since the last
// call: the daemon calls it at start-up and on its once-a-second poll.
void poll_property();

// Ends the capture: what is queued is written, the file synced and closed,
// the writer thread joined. Registered to run at the daemon's exit.
void shutdown();

}  // namespace marlo::capture
