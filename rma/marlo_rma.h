// The RMA client: on the packet channel "glink_pkt_marlo_rma" the
// co-processor connects its memory partitions, each kept in a backing file
// under "/data/vendor/aon/", and reads and writes blocks of them.
//
// Messages in both directions carry a 12-byte header: CRC-32 of bytes 4 to
// the end, total length, command id; then the payload. Requests arrive on the
// transport's reader thread; every field that thread shares with the thread
// that starts the client is atomic, and the table of claimed partition names
// has its own lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "glink/glink_interface.h"
#include "platform/thread_annotations.h"
#include "rma/rma_backing_store.h"
#include "rma/rma_partition_claims.h"

class marlo_rma {
 public:
  // Makes the transport for a channel; the daemon's makes a marlo_glink.
  using transport_factory = std::function<std::unique_ptr<glink_interface>(const glink_conn_config&)>;

  marlo_rma();
  explicit marlo_rma(transport_factory make_transport);
  // Destroys the transport, joining its reader; not from one of its callbacks.
  ~marlo_rma();
  marlo_rma(const marlo_rma&) = delete;
  marlo_rma& operator=(const marlo_rma&) = delete;

  // Opens the channel with a fresh transport and starts serving requests.
  // The transport of an earlier call is destroyed first, on this thread,
  // once its reader has finished the callback it may be running.
  void startMarloRmaConnection();
  void rma_conn_res_event_cb(const uint8_t* data, unsigned size);
  void rma_conn_error_cb(glink_interface_error error);
  int send_aon_request(unsigned command, const uint8_t* payload, unsigned length);
  // Removes what an interrupted creation of a backing file left behind;
  // called at the daemon's start-up, before the channel is served.
  static void remove_stale_temporaries();
  // `size` bytes of the backing file "/data/vendor/aon/<name>" from
  // `offset`; empty when they cannot all be read (no file, a read error, a
  // file that ends before the block) or would not fit one answer packet.
  std::vector<uint8_t> readFile(std::string name, unsigned offset, unsigned size);
  // Writes a block inside the existing backing file at `path` and puts it on
  // stable storage; -1 when it cannot (the file never grows).
  int AppendToFile(const std::string& path, unsigned offset, unsigned size, const char* data);

 private:
  // The backing file's name after "/data/vendor/aon/": three decimal numbers.
  std::string partition_name(uint32_t last) const;
  // Completes `message` (12 header bytes, then the payload) with its length,
  // command id and CRC, and sends it.
  int send_message(unsigned command, std::vector<uint8_t>& message);
  // Appends to `out` the `size`-byte block of the backing file
  // "/data/vendor/aon/<name>" at `offset`; false, with nothing appended and
  // an error line, when the block cannot be read whole or would not fit one
  // answer packet.
  bool append_block(const std::string& name, unsigned offset, unsigned size, std::vector<uint8_t>& out);
  // Makes `name` the connected partition's and its backing file ready; false
  // when the name is another partition's or beyond what a run may claim (no
  // file is made then).
  bool claim_partition(const std::string& name, uint32_t partition_size);
  // Whether `request` (DATA_READ, DATA_WRITE) of the connected partition may
  // use the backing file `name`: not when its CONNECT was refused or the
  // name is another partition's; logged.
  bool may_use(const std::string& name, const char* request) const;
  // Takes the transport out of service and destroys it on the calling
  // thread (the owner's), after its reader has finished.
  void release_transport();

  // The connected partition's ids: written and read by the reader thread,
  // atomic because a new transport's reader may follow an old one.
  std::atomic<uint32_t> memory_id{0};
  std::atomic<uint32_t> client_priv{0};
  std::atomic<uint32_t> file_memory_id{0};
  std::atomic<uint32_t> second_id{0};
  // The last CONNECT was refused: DATA_WRITEs answer result 1 and DATA_READs
  // fail until a CONNECT is accepted.
  std::atomic<bool> connect_refused{false};
  // The (memory id, second id) that made or found each backing file name in
  // this run, kept across the transports of the co-processor's restarts.
  marlo::rma::partition_claims claims{marlo::rma::kMaxPartitions};
  const transport_factory make_transport;
  // The transport. Made, replaced and destroyed only on the owner's thread,
  // and only outside the lock: a destruction joins the reader, which may be
  // waiting for the lock to send an answer. The reader thread sends through
  // it under the lock, so the owner takes it out only between two sends;
  // an answer of an old reader that comes after it was taken out is dropped
  // as if none were set ("glinkInterface != nullptr").
  platform::mutex transport_lock;
  std::unique_ptr<glink_interface> glinkInterface GUARDED_BY(transport_lock);
  // Set by the error callback when the transport reports a failed open
  // (from inside connect_interface, on the owner's thread); the owner drops
  // the transport once the connect has returned.
  std::atomic<bool> open_failed{false};
};
