// Where the daemon's capture of the wire goes and how much of it is kept.
//
// The capture is a ring of files in kDirectory, each named by the time its
// capture session started (UTC) and its sequence in that session,
// "marlod-20261125T173000Z-0001.pcapng", created mode 0600. A file is closed
// and the next one started before a block would take it past kMaxFileBytes;
// when a new file makes more than kRingFiles, the oldest (by name) are
// removed. At most kRingFiles * kMaxFileBytes of storage, 16 MiB, is used.
//
// Messages reach the writer thread through a queue of at most kQueueMessages
// messages and kQueueBytes bytes; a message that would exceed either is
// dropped and counted, and the count written into the file at its place.
#pragma once

#include <cstddef>

namespace marlo::capture {

constexpr const char* kDirectory = "/data/vendor/marlod/capture";
constexpr const char* kProperty = "persist.vendor.marlo.capture";
constexpr const char* kFilePrefix = "marlod-";
constexpr const char* kFileSuffix = ".pcapng";

constexpr int kRingFiles = 4;
constexpr size_t kMaxFileBytes = 4u << 20;

constexpr size_t kQueueMessages = 2048;
constexpr size_t kQueueBytes = 2u << 20;
// Once woken, the writer gathers messages this long (or until the queue is
// half full) and writes them at once: a busy wire costs about ten wake-ups
// and writes a second, not one per message. A capture is that much behind
// the wire.
constexpr int kGatherMs = 100;

}  // namespace marlo::capture
