// A pcapng record of everything that crosses the virtual device's sockets in
// one session, written as it happens (see pcapng_writer.h for the blocks).
//
// File layout:
//   Section Header Block: shb_userappl (4) "marlo-sim"; shb_comment (1) the
//     session's setup, one "key=value" per line (see DeviceOptions's
//     capture_setup()), what a replay needs to rebuild the device root.
//   Five Interface Description Blocks, snaplen 0, µs timestamps, if_name (2)
//   the node path relative to the device root:
//     0 control-device requests "dev/marlo_com_dev"               link type 147 (USER0)
//     1 DFU channel             "dev/glink_pkt_marlo_dfu"         link type 148 (USER1)
//     2 misc-data channel       "dev/glink_pkt_marlo_custom_data" link type 149 (USER2)
//     3 RMA channel             "dev/glink_pkt_marlo_rma"         link type 150 (USER3)
//     4 uevents                 "dev/uevent"                      link type 151 (USER4)
//   One Enhanced Packet Block per socket message, its data exactly the
//   message's bytes: control requests (u32 request | 32-byte block | data)
//   and answers (i32 result | i32 errno | 32-byte block | reply), channel
//   packets, uevent datagrams. epb_flags (2, u32) bits 0-1 give the
//   direction: 0b10 outbound (daemon -> device), 0b01 inbound (device ->
//   daemon). Timestamp: wall clock when the device received the message, or
//   just before it sent it.
//   Life of a device node connection (channels and the control device): a
//   zero-length EPB on its interface with an opt_comment (1), the event and
//   the connection's stream:
//     "open stream S"                 outbound: the daemon's open succeeded
//     "open refused errno N stream S" outbound: the daemon's open failed with N
//     "closed by co-processor stream S"       inbound: the device hung the connection up
//     "half-closed by co-processor stream S"  inbound: the device stopped sending
//     "closed by daemon stream S"     outbound: the daemon closed its descriptor
//   The open-status word itself is not recorded. Streams number the
//   connections of one node from 1 in the order they were opened (refused
//   opens count); every record of a connection, messages included, carries
//   its stream in epb_queue (6, u32) as well. Records without epb_queue
//   (uevents, older captures) belong to no particular connection.
//   "device power cycle" (inbound, control interface): the whole device
//   rebooted here, the daemon with it.
//
// Inbound messages are recorded before they are sent, outbound ones when
// they are received, and a node's connection is recorded closed before a
// newer one of the same node is recorded open, so the file order never puts
// a message before its cause. All methods are safe from any thread (one
// mutex around the writer).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "capture/pcapng_writer.h"

namespace marlo::sim {

enum class CaptureInterface : uint32_t { Control = 0, Dfu = 1, Misc = 2, Rma = 3, Uevent = 4 };
constexpr int kCaptureInterfaces = 5;

// epb_flags direction bits.
enum class Direction : uint32_t { Inbound = 1, Outbound = 2 };

// A life record's comment split into its event ("open", "closed by daemon",
// ...) and its stream (0 when the comment names none).
struct LifeEvent {
  std::string event;
  uint32_t stream = 0;
};
LifeEvent parse_life(const std::string& comment);

// The node path (relative to the root) and link type of an interface.
const char* capture_node(CaptureInterface interface);
uint16_t capture_link_type(CaptureInterface interface);

class SessionCapture {
 public:
  // Creates `path` and writes the section header (with `setup` as its
  // comment) and the five interfaces; throws when the file cannot be made.
  SessionCapture(const std::string& path, const std::string& setup);

  // `stream` 0: the record belongs to no connection (uevents).
  void packet(CaptureInterface interface, Direction direction, const uint8_t* data, size_t length, uint32_t stream = 0);
  // A zero-length packet carrying `event` and the stream (connection life).
  void life(CaptureInterface interface, Direction direction, const std::string& event, uint32_t stream = 0);

 private:
  std::mutex mutex_;
  capture::PcapngWriter writer_;  // guarded by mutex_
};

// The capture of the device served at `root`, for the senders that know only
// the root (uevents): attached by the device for its lifetime.
void attach_capture(const std::string& root, std::shared_ptr<SessionCapture> capture);
// Detaches `capture` only when it is still the one attached at `root`.
void detach_capture(const std::string& root, const SessionCapture* capture);
std::shared_ptr<SessionCapture> capture_of(const std::string& root);

}  // namespace marlo::sim
