// What a co-processor that breaks down in the middle of a conversation does
// to the daemon's next read on one channel, and the switch that a channel
// consults at each packet boundary to apply it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>

namespace marlo::sim {

enum class ReadFault {
  // The packet goes out cut short (two thirds of it, header included), and
  // nothing more comes.
  CutShort,
  // The co-processor's end is half-closed (shutdown for writing): the
  // daemon's poll shows POLLIN and its reads return 0.
  EndOfStream,
  // The connection is closed with the daemon's packet unread in the
  // co-processor's queue: the daemon's next read fails with ECONNRESET.
  ReadError,
  // The packet never goes out, nor anything after it.
  Silence,
};

const char* read_fault_name(ReadFault fault);

// Armed at a packet count; once it has struck, the channel stays broken on
// every connection (silent, and half-closed at once for end-of-stream) until
// the co-processor goes down. Thread-safe.
class ReadFaultSwitch {
 public:
  enum class Action {
    Pass,       // handle the packet as usual
    Drop,       // the co-processor says, or takes, nothing
    Cut,        // send the first cut_length() bytes only
    HalfClose,  // shutdown(SHUT_WR) instead of sending
    Reset,      // close the connection, leaving the packet unread
  };

  // `packet` counts from the arming: packets sent, or for ReadError packets
  // received. `on_strike` runs on the channel's thread as the fault strikes.
  void arm(ReadFault fault, int packet, std::function<void()> on_strike);
  // The co-processor went down: a fault that struck is over (one armed and
  // not yet struck stays armed).
  void end();
  bool struck() const;

  Action on_send();
  Action on_receive();
  // True when the next packet sent will not go out whole: the fault has
  // struck, or strikes at that packet.
  bool breaks_next_send() const;
  // A connection opened after the fault struck: true when it is half-closed
  // at once.
  bool half_close_new_connection() const;

  static size_t cut_length(size_t packet_size) { return packet_size * 2 / 3; }

 private:
  Action strike(Action action, std::unique_lock<std::mutex>& lock);

  mutable std::mutex mutex_;
  bool armed_ = false;  // guarded by mutex_, as are the fields below
  bool struck_ = false;
  ReadFault fault_ = ReadFault::Silence;
  int countdown_ = 0;
  std::function<void()> on_strike_;
};

}  // namespace marlo::sim
