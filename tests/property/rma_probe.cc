#include "rma_probe.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "common/crc32.h"
#include "sim/rma_client.h"

namespace marlo::property {

namespace {

constexpr size_t kHeader = 12;
constexpr uint32_t kSecondId = 1;
// Partitions the workload never uses.
constexpr uint32_t kFirstMemoryId = 20;
// Bytes of a partition the model keeps; larger ones are checked for form only.
constexpr uint32_t kModelledSize = 1u << 20;
// Blocks a read answer can always carry.
constexpr uint32_t kLargestReadBlock = 64u << 10;

constexpr std::array<uint32_t, kRmaSizeChoices> kSizes{4096, 8192, 1, 0, 65536, (64u << 20) + 1, 0xFFFFFFFF};
constexpr std::array<uint32_t, kRmaOffsetChoices> kOffsets{0, 1024, 4000, 8192, 0xFFFFFC00};
constexpr std::array<uint32_t, kRmaBlockChoices> kBlocks{1024, 1, 96, 0, 4096, 0x7FFFFFFF};
constexpr std::array<uint32_t, 4> kCommands{sim::kRmaConnect, sim::kRmaDataWrite, sim::kRmaDataRead,
                                            sim::kRmaDisconnect};

uint8_t pattern_byte(uint32_t step_number, uint32_t i) { return static_cast<uint8_t>(step_number * 29 + i * 11 + 3); }

}  // namespace

Step make_rma_step(uint32_t command_index, uint32_t slot, uint32_t size_index, uint32_t offset_index,
                   uint32_t block_index, bool lying) {
  const uint32_t detail =
      (slot & 1) | (size_index & 7) << 1 | (offset_index & 7) << 4 | (block_index & 7) << 8 | (lying ? 1u : 0u) << 11;
  return Step{Action::Rma, command_index % 4, detail};
}

RmaRequest decode_rma_step(const Step& step) {
  RmaRequest r;
  r.command = kCommands[step.arg % 4];
  r.memory_id = kFirstMemoryId + (step.detail & 1);
  r.size = kSizes[((step.detail >> 1) & 7) % kRmaSizeChoices];
  r.offset = kOffsets[((step.detail >> 4) & 7) % kRmaOffsetChoices];
  r.block = kBlocks[((step.detail >> 8) & 7) % kRmaBlockChoices];
  const bool lying = (step.detail >> 11) & 1;
  r.sent = std::min<uint32_t>(r.block, 4096);
  if (lying) r.sent /= 2;
  return r;
}

std::string describe_rma_step(const Step& step) {
  const RmaRequest r = decode_rma_step(step);
  const std::string id = " memory " + std::to_string(r.memory_id);
  switch (r.command) {
    case sim::kRmaConnect: return "CONNECT" + id + " size " + std::to_string(r.size);
    case sim::kRmaDisconnect: return "DISCONNECT" + id;
    case sim::kRmaDataRead:
      return "DATA_READ" + id + " at " + std::to_string(r.offset) + " block " + std::to_string(r.block);
    default:
      return "DATA_WRITE" + id + " at " + std::to_string(r.offset) + " block " + std::to_string(r.block) + ", " +
             std::to_string(r.sent) + " bytes sent";
  }
}

sim::Bytes RmaProbe::request(const RmaRequest& r, uint32_t step_number) {
  sim::Bytes payload;
  switch (r.command) {
    case sim::kRmaConnect:
      for (uint32_t w : {0u, r.memory_id, kSecondId, r.size, 0u, 0u, kClientPriv}) sim::append_u32(payload, w);
      break;
    case sim::kRmaDisconnect:
      for (uint32_t w : {0u, r.memory_id}) sim::append_u32(payload, w);
      break;
    default:
      for (uint32_t w : {r.memory_id, r.memory_id, r.offset, r.block, 0u}) sim::append_u32(payload, w);
      if (r.command == sim::kRmaDataWrite) {
        for (uint32_t i = 0; i < r.sent; ++i) payload.push_back(pattern_byte(step_number, i));
      }
  }
  return sim::make_rma_message(r.command, payload);
}

bool RmaProbe::is_probe_answer(const sim::Bytes& m) {
  return sim::get_u32(m, kHeader) == kClientPriv || sim::get_u32(m, kHeader + 4) == kClientPriv;
}

std::string RmaProbe::check(const RmaRequest& r, uint32_t step_number, const std::optional<sim::Bytes>& answer,
                            bool session) {
  const bool ours = session && connected_.has_value();
  if (r.command == sim::kRmaConnect) {
    // The daemon zero-fills a new backing file of the partition size and
    // keeps an existing one as it is.
    if (partitions_.find(r.memory_id) == partitions_.end() && r.size <= kModelledSize && answer) {
      partitions_[r.memory_id] = Partition{r.size, sim::Bytes(r.size, 0)};
    }
    connected_ = r.memory_id;
  }
  if (!answer) return "";  // a refusal without an answer is the daemon's to make
  const sim::Bytes& m = *answer;
  if (m.size() < kHeader || sim::get_u32(m, 4) != m.size() || crc32(m.data() + 4, m.size() - 4) != sim::get_u32(m, 0)) {
    return "malformed RMA answer of " + std::to_string(m.size()) + " bytes";
  }
  if (sim::get_u32(m, 8) != r.command + 1) return "RMA answer with command " + std::to_string(sim::get_u32(m, 8));
  if (r.command != sim::kRmaDataWrite && r.command != sim::kRmaDataRead) return "";
  if (m.size() < kHeader + 20) return "RMA data answer of " + std::to_string(m.size()) + " bytes";
  const uint32_t result = sim::get_u32(m, kHeader + 16);
  const size_t data = m.size() - kHeader - 20;
  auto found = partitions_.find(r.memory_id);
  const bool modelled = ours && *connected_ == r.memory_id && found != partitions_.end();
  const bool inside = modelled && r.offset <= found->second.size && r.block <= found->second.size - r.offset;
  if (r.command == sim::kRmaDataWrite) {
    if (data != 0) return "DATA_WRITE answer carries data";
    if (result == 0 && modelled) {
      // Acknowledged: the whole block is in the file, from what was sent.
      if (!inside) return "a DATA_WRITE beyond the partition was acknowledged";
      if (r.sent < r.block) {
        // What stands for the bytes that never arrived is the daemon's
        // choice: the partition is no longer modelled.
        partitions_.erase(found);
        return "";
      }
      for (uint32_t i = 0; i < r.block; ++i) found->second.bytes[r.offset + i] = pattern_byte(step_number, i);
    }
    return "";
  }
  if (result == 1) return data == 0 ? "" : "a failed DATA_READ carries data";
  if (result != 0) return "DATA_READ answer with result " + std::to_string(result);
  if (data > r.block)
    return "DATA_READ answer of " + std::to_string(data) + " bytes for a block of " + std::to_string(r.block);
  // A read answered as done carries the whole block (a block no packet can
  // carry can only fail).
  if (r.block <= kLargestReadBlock && data != r.block) {
    return "DATA_READ answered as done with " + std::to_string(data) + " of " + std::to_string(r.block) + " bytes";
  }
  if (inside) {
    if (std::memcmp(m.data() + kHeader + 20, found->second.bytes.data() + r.offset, r.block) != 0) {
      return "DATA_READ of memory " + std::to_string(r.memory_id) + " at " + std::to_string(r.offset) +
             " did not return what was last acknowledged written";
    }
  }
  return "";
}

}  // namespace marlo::property
