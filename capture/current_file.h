// The name of the capture file being written, published by the recorder's
// writer thread for the records that name it (the update history). Kept
// apart from the recorder so that naming the file does not link the
// recorder, its thread and its property reads into every user.
#pragma once

#include <string>

namespace marlo::capture {

// The base name of the file being written ("marlod-...-0001.pcapng"), or ""
// when the capture is off.
std::string current_file();

// Called by the recorder when a file is opened ("" when it is closed).
void publish_current_file(const std::string& name);

}  // namespace marlo::capture
