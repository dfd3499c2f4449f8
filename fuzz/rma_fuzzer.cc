// The RMA message handling (marlo_rma::rma_conn_res_event_cb) against a
// scratch backing directory. Input: a sequence of messages, each preceded by
// its length as a little-endian 16-bit word, handled in order (so that a
// CONNECT can be followed by writes and reads of its partition). The client
// answers over a real RMA channel whose co-processor end checks every
// answer's length word and CRC.
//
// Backing files are capped by a file-size limit (RLIMIT_FSIZE, with SIGXFSZ
// ignored): a CONNECT may ask for a partition of up to 4 GiB, and creating
// it must then fail cleanly instead of filling the disk. The directory is
// emptied after each input.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz/packet_sink.h"
#include "fuzz/scratch_root.h"
#include "rma/marlo_rma.h"
#include "sim/device_root.h"

namespace {

constexpr rlim_t kFileSizeLimit = 256 * 1024;
constexpr const char* kBackingDir = "/data/vendor/aon";

struct Client {
  std::unique_ptr<marlo::fuzz::PacketSink> channel;
  marlo_rma rma;
};

Client* client() {
  static Client* c = [] {
    marlo::sim::build_device_root(marlo::fuzz::scratch_root(), marlo::sim::RootOptions{});
    ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {kFileSizeLimit, kFileSizeLimit};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) std::abort();
    auto* created = new Client;
    created->channel =
        std::make_unique<marlo::fuzz::PacketSink>("/dev/glink_pkt_marlo_rma", marlo::fuzz::check_rma_packet);
    created->rma.startMarloRmaConnection();
    return created;
  }();
  return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Client* c = client();
  size_t at = 0;
  while (at + 2 <= size) {
    const size_t length = std::min<size_t>(data[at] | (data[at + 1] << 8), size - at - 2);
    at += 2;
    // Exactly the received bytes, so that any read past them is caught.
    std::vector<uint8_t> message(data + at, data + at + length);
    c->rma.rma_conn_res_event_cb(message.data(), static_cast<unsigned>(message.size()));
    at += length;
  }
  marlo::fuzz::empty_dir(kBackingDir);
  return 0;
}
