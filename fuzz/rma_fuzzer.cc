// The RMA message handling (marlo_rma::rma_conn_res_event_cb) against a
// scratch backing directory. Input: a sequence of messages, each preceded by
// its length as a little-endian 16-bit word, handled in order (so that a
// CONNECT can be followed by writes and reads of its partition). The client
// answers over a real RMA channel whose co-processor end checks every
// answer's length word and CRC.
//
// No file-size limit hides what a CONNECT asks for: the storage policy alone
// bounds the backing files, and after each input the harness checks that it
// held (no file above the per-file cap, the directory within its cap, no
// temporary left by a creation) before emptying the directory. The scratch
// root is on tmpfs, so one input occupies at most the policy's 256 MiB of
// memory, and only until it ends.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/packet_sink.h"
#include "fuzz/scratch_root.h"
#include "rma/marlo_rma.h"
#include "rma/rma_backing_store.h"
#include "sim/device_root.h"

namespace {

constexpr const char* kBackingDir = "/data/vendor/aon";

// The co-processor's end of the channel, made once for the whole run.
marlo::fuzz::PacketSink* channel() {
  static marlo::fuzz::PacketSink* sink = [] {
    marlo::sim::build_device_root(marlo::fuzz::scratch_root(), marlo::sim::RootOptions{});
    return new marlo::fuzz::PacketSink("/dev/glink_pkt_marlo_rma", marlo::fuzz::check_rma_packet);
  }();
  return sink;
}

[[noreturn]] void violated(const char* what, const std::string& name, uint64_t bytes) {
  std::fprintf(stderr, "storage policy violated: %s (%s, %llu bytes)\n", what, name.c_str(),
               static_cast<unsigned long long>(bytes));
  std::abort();
}

// What the input left in the backing directory must be within the policy.
void check_backing_dir() {
  namespace fs = std::filesystem;
  uint64_t total = 0;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(marlo::fuzz::scratch_root() + kBackingDir, ignored)) {
    const std::string name = entry.path().filename();
    if (!entry.is_regular_file(ignored)) continue;
    const uint64_t size = entry.file_size(ignored);
    if (name.find(marlo::rma::kTemporarySuffix) != std::string::npos) violated("temporary left", name, size);
    if (size > marlo::rma::kMaxPartitionBytes) violated("backing file above its cap", name, size);
    total += size;
  }
  if (total > marlo::rma::kMaxStorageBytes) violated("directory above its cap", kBackingDir, total);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  channel();
  // A client per input: the names it claims last for the life of the
  // client (a run of the daemon), and inputs must not depend on each other.
  marlo_rma rma;
  rma.startMarloRmaConnection();
  size_t at = 0;
  while (at + 2 <= size) {
    const size_t length = std::min<size_t>(data[at] | (data[at + 1] << 8), size - at - 2);
    at += 2;
    // Exactly the received bytes, so that any read past them is caught.
    std::vector<uint8_t> message(data + at, data + at + length);
    rma.rma_conn_res_event_cb(message.data(), static_cast<unsigned>(message.size()));
    at += length;
  }
  check_backing_dir();
  marlo::fuzz::empty_dir(kBackingDir);
  return 0;
}
