#include "rma/marlo_rma.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "common/crc32.h"
#include "common/le32.h"
#include "common/rma_wire.h"
#include "daemon/marlo_deamon_log.h"
#include "glink/marlo_glink.h"
#include "platform/os.h"
#include "platform/unique_fd.h"
#include "rma/rma_backing_store.h"
#include "rma/rma_file.h"

namespace {

// kPartitionDir, and the wire numbering: command words and field offsets.
using namespace marlo::rma;

constexpr uint32_t kReadSize = 40;
constexpr size_t kConnectSize = 40;

// Fixed values of the CONNECT response.
constexpr uint32_t kConnectVersion = 3;
constexpr uint32_t kConnectBlockSize = 4096;
// The result word of the DATA_READ and DATA_WRITE answers.
constexpr uint32_t kResultDone = 0;
constexpr uint32_t kResultFailed = 1;
// A DATA_READ answer is one packet: header, five words, the block. A larger
// block is answered as a read that failed, so that no size the co-processor
// names makes the daemon allocate more than one packet.
constexpr size_t kReadAnswerWords = 5;
constexpr size_t kReadResultOffset = kHeaderSize + (kReadAnswerWords - 1) * sizeof(uint32_t);
constexpr uint32_t kMaxReadBlock =
    marlo_glink::kMaxPacketSize - static_cast<uint32_t>(kHeaderSize + kReadAnswerWords * sizeof(uint32_t));

std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
  std::vector<uint8_t> out;
  out.reserve(values.size() * sizeof(uint32_t));
  for (uint32_t value : values) marlo::append_le32(out, value);
  return out;
}

}  // namespace

marlo_rma::marlo_rma()
    : marlo_rma([](const glink_conn_config& config) { return std::make_unique<marlo_glink>(config); }) {}

marlo_rma::marlo_rma(transport_factory make) : make_transport(std::move(make)) {}

marlo_rma::~marlo_rma() { release_transport(); }

void marlo_rma::release_transport() {
  std::unique_ptr<glink_interface> released;
  {
    platform::lock_guard lock(transport_lock);
    released = std::move(glinkInterface);
  }
  // Destroyed here, outside the lock: its destructor joins its reader.
  released.reset();
}

void marlo_rma::startMarloRmaConnection() {
  MARLO_LOGD("%s: called\n", "startMarloRmaConnection");
  glink_conn_config config;
  config.channel_name = "glink_pkt_marlo_rma";
  config.read_size = kReadSize;
  glink_interface* current = nullptr;
  {
    platform::lock_guard lock(transport_lock);
    current = glinkInterface.get();  // only logged
  }
  MARLO_LOGE("About to register callbacks with glinkInterface %p", static_cast<void*>(current));
  // The transport of an earlier power-up is released first: its reader,
  // still serving a reopened channel, would answer requests beside the new
  // one.
  release_transport();
  std::unique_ptr<glink_interface> made = make_transport(config);
  glink_interface* transport = made.get();
  {
    platform::lock_guard lock(transport_lock);
    glinkInterface = std::move(made);
  }
  MARLO_LOGD("About to register callbacks with glinkInterface %p", static_cast<void*>(transport));
  open_failed = false;
  transport->register_cb([this](uint8_t* data, uint32_t length) { rma_conn_res_event_cb(data, length); },
                         [this](glink_interface_error error) { rma_conn_error_cb(error); });
  // This thread alone replaces the transport: it stays valid through the
  // connect. A failed open was reported from inside it and is acted on now.
  transport->connect_interface(true);
  if (open_failed.exchange(false)) release_transport();
}

void marlo_rma::rma_conn_error_cb(glink_interface_error error) {
  MARLO_LOGE("conn_error_cb =%d", error);
  // Only recorded: the transport reporting it is still running this call.
  if (error == GLINK_OPEN_FAILED) open_failed = true;
}

int marlo_rma::send_aon_request(unsigned command, const uint8_t* payload, unsigned length) {
  const bool has_payload = payload != nullptr && length != 0;
  std::vector<uint8_t> message;
  message.reserve(kHeaderSize + (has_payload ? length : 0));
  message.resize(kHeaderSize);
  if (has_payload) message.insert(message.end(), payload, payload + length);
  return send_message(command, message);
}

int marlo_rma::send_message(unsigned command, std::vector<uint8_t>& message) {
  const uint32_t total = static_cast<uint32_t>(message.size());
  marlo::put_le32(message.data() + 4, total);
  marlo::put_le32(message.data() + kCommandOffset, command);
  const uint32_t crc = marlo::crc32(message.data() + kCrcStart, message.size() - kCrcStart);
  marlo::put_le32(message.data(), crc);
  MARLO_LOGD("send_aon_request %x", crc);
  // Held through the send: the owner takes the transport out only between
  // two sends, and never destroys it under this lock.
  platform::lock_guard lock(transport_lock);
  if (!glinkInterface) {
    MARLO_LOGE("glinkInterface != nullptr");
    return 0;
  }
  return glinkInterface->send_request(message.data(), total);
}

void marlo_rma::remove_stale_temporaries() { marlo::rma::remove_stale_temporaries(); }

std::string marlo_rma::partition_name(uint32_t last) const {
  return std::to_string(file_memory_id.load()) + std::to_string(second_id.load()) + std::to_string(last);
}

bool marlo_rma::append_block(const std::string& name, unsigned offset, unsigned size, std::vector<uint8_t>& out) {
  if (size > kMaxReadBlock) {
    MARLO_LOGE("DATA_READ block of %u bytes does not fit one packet (at most %u), answered as a failed read", size,
               kMaxReadBlock);
    return false;
  }
  const std::string path = kPartitionDir + name;
  MARLO_LOGD("readFile Path : %s and size :%d ", path.c_str(), size);
  platform::unique_fd file(platform::open(path.c_str(), O_RDONLY));
  if (!file.ok()) {
    MARLO_LOGE("File open failed : %s", path.c_str());
    return false;
  }
  // Only a block the file holds whole is served: zeros in place of bytes
  // that could not be read would be taken by the co-processor as its memory.
  const size_t at = out.size();
  out.resize(at + size);
  const int64_t got = marlo::rma::read_at(file.get(), out.data() + at, size, offset);
  if (got < 0) {
    MARLO_LOGE("read of %s failed: %s", path.c_str(), strerror(errno));
  } else if (static_cast<uint64_t>(got) < size) {
    MARLO_LOGE("%s holds %lld bytes at %u, fewer than the %u asked", path.c_str(), static_cast<long long>(got), offset,
               size);
  }
  if (got != static_cast<int64_t>(size)) {
    out.resize(at);
    return false;
  }
  MARLO_LOGD("read : %d", static_cast<int>(size));
  return true;
}

bool marlo_rma::claim_partition(const std::string& name, uint32_t partition_size) {
  const std::string path = kPartitionDir + name;
  const marlo::rma::partition_owner owner{memory_id, second_id};
  marlo::rma::partition_owner holder{};
  const auto claim = claims.claim(name, owner, &holder);
  if (claim == marlo::rma::partition_claims::claim_result::taken) {
    MARLO_LOGE("CONNECT of memory id %u, second id %u refused: %s is claimed by memory id %u, second id %u",
               owner.memory_id, owner.second_id, path.c_str(), holder.memory_id, holder.second_id);
    return false;
  }
  if (claim == marlo::rma::partition_claims::claim_result::full) {
    MARLO_LOGE("CONNECT of memory id %u, second id %u refused: %s would be beyond the %u partitions one run may claim",
               owner.memory_id, owner.second_id, path.c_str(), marlo::rma::kMaxPartitions);
    return false;
  }
  switch (marlo::rma::create_backing_file(name, partition_size)) {
    case marlo::rma::create_result::exists: MARLO_LOGE("file exists %s  ", path.c_str()); return true;
    case marlo::rma::create_result::created:
      MARLO_LOGD("size of file %d ", static_cast<int>(partition_size));
      return true;
    case marlo::rma::create_result::failed: MARLO_LOGE("File opening failed"); break;
    case marlo::rma::create_result::refused:  // logged with the policy's figures
      break;
  }
  // No file: the name stays free for whichever pair can make it.
  if (claim == marlo::rma::partition_claims::claim_result::added) claims.release(name, owner);
  return true;
}

bool marlo_rma::may_use(const std::string& name, const char* request) const {
  if (connect_refused) {
    MARLO_LOGE("%s of memory id %u refused: its CONNECT was refused", request, memory_id.load());
    return false;
  }
  marlo::rma::partition_owner holder{};
  if (claims.held_by_other(name, {memory_id, second_id}, &holder)) {
    MARLO_LOGE("%s of memory id %u, second id %u refused: %s%s is claimed by memory id %u, second id %u", request,
               memory_id.load(), second_id.load(), kPartitionDir, name.c_str(), holder.memory_id, holder.second_id);
    return false;
  }
  return true;
}

std::vector<uint8_t> marlo_rma::readFile(std::string name, unsigned offset, unsigned size) {
  std::vector<uint8_t> data;
  append_block(name, offset, size, data);
  return data;
}

int marlo_rma::AppendToFile(const std::string& path, unsigned offset, unsigned size, const char* data) {
  platform::unique_fd file(platform::open(path.c_str(), O_RDWR));
  if (!file.ok()) {
    MARLO_LOGE("Cannot open file %s", path.c_str());
    return -1;
  }
  const off_t end = platform::lseek(file.get(), 0, SEEK_END);
  const uint64_t file_size = end < 0 ? 0 : static_cast<uint64_t>(end);
  if (offset > file_size || static_cast<uint64_t>(offset) + size > file_size) {
    MARLO_LOGE("block of %u bytes at %u does not fit the %llu-byte file %s", size, offset,
               static_cast<unsigned long long>(file_size), path.c_str());
    return -1;
  }
  MARLO_LOGD("write to file : %d", size);
  if (data != nullptr) {
    if (platform::lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0 ||
        !marlo::rma::write_all(file.get(), reinterpret_cast<const uint8_t*>(data), size) ||
        platform::fdatasync(file.get()) != 0) {
      MARLO_LOGE("write to file %s failed: %s", path.c_str(), strerror(errno));
      return -1;
    }
  }
  return 0;
}

void marlo_rma::rma_conn_res_event_cb(const uint8_t* data, unsigned size) {
  MARLO_LOGD("received res or event");
  if (data == nullptr || size < kHeaderSize) {
    MARLO_LOGE("GLINK_int message of %u bytes is shorter than its header, dropped", size);
    return;
  }
  const std::vector<uint8_t> message(data, data + size);
  switch (marlo::le32_at(message, kCommandOffset)) {
    case RMA_CONNECT: {
      MARLO_LOGD("GLINK_int received CONNECT ");
      const size_t covered = std::min<size_t>(message.size(), kConnectSize) - kCrcStart;
      const uint32_t crc = marlo::crc32(message.data() + kCrcStart, covered);
      MARLO_LOGD("GLINK_int received CRC %d and CRC calculated %d size %d ", marlo::le32_at(message, 0), crc, size);
      memory_id = marlo::le32_at(message, kMemoryIdOffset);
      file_memory_id = memory_id.load();
      client_priv = marlo::le32_at(message, kClientPrivOffset);
      second_id = marlo::le32_at(message, kSecondIdOffset);
      const uint32_t partition_size = marlo::le32_at(message, kSizeOffset);
      MARLO_LOGD("memory_id received CONNECT %d,partition_sz_bytes %d, client_priv %d ", memory_id.load(),
                 partition_size, client_priv.load());
      // A refused CONNECT is answered all the same; its partition is not
      // served.
      connect_refused = !claim_partition(partition_name(memory_id), partition_size);
      auto payload = words({client_priv, 0, memory_id, kConnectVersion, kConnectBlockSize, kConnectBlockSize});
      send_aon_request(RMA_CONNECT_RESP, payload.data(), static_cast<unsigned>(payload.size()));
      break;
    }
    case RMA_DISCONNECT: {
      MARLO_LOGD("GLINK_int received DISCONNECT ");
      auto payload = words({memory_id, client_priv, marlo::le32_at(message, kMemoryIdOffset), 0});
      send_aon_request(RMA_DISCONNECT_RESP, payload.data(), static_cast<unsigned>(payload.size()));
      break;
    }
    case RMA_DATA_READ: {
      MARLO_LOGD("GLINK_int received DATA_READ 1");
      const uint32_t block_size = marlo::le32_at(message, kSizeOffset);
      // The answer is built in place: header, the echoed words, then the
      // block read straight behind them.
      std::vector<uint8_t> answer(kHeaderSize);
      answer.reserve(kHeaderSize + kReadAnswerWords * sizeof(uint32_t));
      for (uint32_t word : {marlo::le32_at(message, kRequestWordOffset), client_priv.load(),
                            marlo::le32_at(message, kMemoryIdOffset), block_size, kResultDone}) {
        marlo::append_le32(answer, word);  // the last one is the result
      }
      // A block that cannot be read whole is answered with the echoed words,
      // result 1 and no data, as a failed DATA_WRITE is.
      const std::string name = partition_name(memory_id);
      const uint32_t offset = marlo::le32_at(message, kSecondIdOffset);
      if (!may_use(name, "DATA_READ") || !append_block(name, offset, block_size, answer)) {
        marlo::put_le32(answer.data() + kReadResultOffset, kResultFailed);
        MARLO_LOGE("DATA_READ of %u bytes at %u from %s%s failed: result 1, no data", block_size, offset, kPartitionDir,
                   name.c_str());
      }
      MARLO_LOGD("prepare DATA_READ data:");
      send_message(RMA_DATA_READ_RESP, answer);
      break;
    }
    case RMA_DATA_WRITE: {
      MARLO_LOGD("GLINK_int received DATA_WRITE and len %d", marlo::le32_at(message, 4));
      const uint32_t request_word = marlo::le32_at(message, kRequestWordOffset);
      const uint32_t block_size = marlo::le32_at(message, kSizeOffset);
      uint32_t result = kResultFailed;
      // The block is taken only from bytes that arrived.
      if (message.size() < kBlockOffset || block_size > message.size() - kBlockOffset) {
        MARLO_LOGE("DATA_WRITE block of %u bytes is larger than the %u-byte message", block_size, size);
      } else if (const std::string name = partition_name(request_word); may_use(name, "DATA_WRITE")) {
        if (AppendToFile(kPartitionDir + name, marlo::le32_at(message, kSecondIdOffset), block_size,
                         reinterpret_cast<const char*>(message.data() + kBlockOffset)) == 0) {
          result = kResultDone;
        }
      }
      auto payload = words({request_word, client_priv, marlo::le32_at(message, kMemoryIdOffset), block_size, result});
      send_aon_request(RMA_DATA_WRITE_RESP, payload.data(), static_cast<unsigned>(payload.size()));
      break;
    }
    default: MARLO_LOGE("GLINK_int invalid cmd id"); break;
  }
}
