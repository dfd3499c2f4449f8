// The link's own limit: a host side that answers the virtual co-processor's
// DFU requests over the same kind of connection as the daemon, from
// responses built before the download starts, with no logic beyond looking
// them up. It runs the exchange the daemon runs, and nothing else.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "sim/wire.h"

namespace marlo::bench {

class MinResponder {
 public:
  // Prebuilds every IMG_INFO_RESP and IMG_OFFSET_RESP for `images` (by id)
  // in fragments of `fragment_size`.
  MinResponder(const std::map<uint32_t, sim::Bytes>& images, uint32_t fragment_size);
  ~MinResponder();
  MinResponder(const MinResponder&) = delete;
  MinResponder& operator=(const MinResponder&) = delete;

  // Opens the DFU device node (socket path), sends MG_UPDT_REQ and answers
  // on a thread of its own until SESSION_END_REQ has been answered or the
  // channel closes. False when the node could not be opened.
  bool start(const std::string& socket_path);
  void join();

 private:
  void serve();
  const sim::Bytes* offset_response(uint32_t image_id, uint32_t offset, uint32_t length) const;

  uint32_t fragment_size_;
  std::map<uint32_t, sim::Bytes> info_;
  std::map<uint32_t, std::vector<sim::Bytes>> fragments_;
  int fd_ = -1;
  std::thread thread_;
};

}  // namespace marlo::bench
