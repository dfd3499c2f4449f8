// RMA requests of the generated co-processor, sent beside the workload of
// the virtual device on partitions of their own, and the model they are
// checked against: the bytes of every acknowledged write. A DATA_READ of
// bytes inside the partition must return them, or say that it failed
// (result word 1, no data).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "sim/wire.h"
#include "steps.h"

namespace marlo::property {

// The fields of an RMA step (Action::Rma), decoded from its detail word.
struct RmaRequest {
  uint32_t command = 0;  // kRmaConnect, kRmaDataWrite, kRmaDataRead, kRmaDisconnect
  uint32_t memory_id = 0;
  uint32_t size = 0;    // CONNECT: partition size
  uint32_t offset = 0;  // DATA_*: offset
  uint32_t block = 0;   // DATA_*: block size word
  uint32_t sent = 0;    // DATA_WRITE: data bytes that really follow (may lie)
};

// Choices the generator draws indices from: ordinary values first, hostile
// ones after (shrinking goes towards the ordinary).
constexpr int kRmaSizeChoices = 7;
constexpr int kRmaOffsetChoices = 5;
constexpr int kRmaBlockChoices = 6;

Step make_rma_step(uint32_t command_index, uint32_t slot, uint32_t size_index, uint32_t offset_index,
                   uint32_t block_index, bool lying);
RmaRequest decode_rma_step(const Step& step);
std::string describe_rma_step(const Step& step);

class RmaProbe {
 public:
  // The client value of the probe's CONNECTs: answers echoing it are the
  // probe's.
  static constexpr uint32_t kClientPriv = 0x0BADF00D;

  static sim::Bytes request(const RmaRequest& r, uint32_t step_number);
  static bool is_probe_answer(const sim::Bytes& answer);

  // Checks `answer` (none when the daemon sent nothing within the wait)
  // against the request and the model, then updates the model. `session`
  // is false when something other than the probe may have talked to the
  // daemon since the probe's last CONNECT: then only the form is checked.
  std::string check(const RmaRequest& r, uint32_t step_number, const std::optional<sim::Bytes>& answer, bool session);
  // A relaunched daemon or a new workload run: the daemon's stored
  // partition is no longer the probe's.
  void forget_session() { connected_.reset(); }
  bool has_session() const { return connected_.has_value(); }

 private:
  struct Partition {
    uint32_t size = 0;
    sim::Bytes bytes;  // what the backing file must hold
  };
  std::map<uint32_t, Partition> partitions_;  // by memory id, once created
  std::optional<uint32_t> connected_;         // memory id of the last CONNECT
};

}  // namespace marlo::property
