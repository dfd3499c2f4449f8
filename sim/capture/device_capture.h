// What the daemon records of a session on a device, reproduced from a host
// capture: for trying the device path of `marlo-sim replay` (and the
// dissector) on a session of the virtual device.
//
// A device capture has the host capture's layout (session_capture.h) with
// shb_userappl "marlod" and no setup comment: the device root cannot be
// rebuilt from it. At the "headers" level, the data that may be private is
// cut from a message and its Enhanced Packet Block records the original
// length: the fragment of an IMG_OFFSET_RESP (28 bytes kept), the data of a
// misc-data DATA_MORE or DATA_LAST packet (16 kept), the block of an RMA
// DATA_WRITE or DATA_READ_RESP (32 kept). Headers, protocol words, checksums
// and every other message stay whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/capture/pcapng_reader.h"
#include "sim/capture/session_capture.h"

namespace marlo::sim {

// The bytes of a message a "headers" capture keeps (`length` when nothing
// is cut).
size_t headers_kept_length(CaptureInterface interface, Direction direction, const uint8_t* data, size_t length);

// `host` as the daemon records it on a device, cut as above when `headers`.
CaptureFile as_device_capture(const CaptureFile& host, bool headers);

// Writes `capture` (one section) to `path`; false with `error` set when it
// cannot.
bool write_capture(const CaptureFile& capture, const std::string& path, std::string* error);

}  // namespace marlo::sim
