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
#include <string>
#include <vector>

#include "glink/glink_interface.h"
#include "rma/rma_backing_store.h"
#include "rma/rma_partition_claims.h"

class marlo_rma {
 public:
  marlo_rma() = default;
  ~marlo_rma();
  marlo_rma(const marlo_rma&) = delete;
  marlo_rma& operator=(const marlo_rma&) = delete;

  // Opens the channel with a fresh transport and starts serving requests.
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
  // The transport, owned through this pointer. Created and deleted by the
  // thread that starts the client (the daemon's flash-less worker; the
  // error callback of a failed open runs on that thread too) and by the
  // destructor; the reader thread only sends through it. When a power-up
  // replaces the transport, the old one's reader may be answering a request
  // of the co-processor that has since restarted: the delete waits for it
  // (the transport's destructor joins its reader), and that answer may be
  // dropped as if the pointer were unset.
  std::atomic<glink_interface*> glinkInterface{nullptr};
};
