// Which partition owns each backing file name in this run of the daemon.
//
// A backing file's name is three decimal numbers with no separator, so two
// partitions can form the same name: memory id 1 with second id 111 and
// memory id 11 with second id 1 both name "11111". The names stay as they
// are (devices hold these files); instead the first (memory id, second id)
// pair that made or found a name claims it, and no other pair may use it
// until the daemon restarts.
//
// The table lives as long as the RMA client, across the transports that each
// power-up of the co-processor creates. It is used by the RMA reader thread;
// a new transport's reader follows an old one, so it is locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "platform/thread_annotations.h"

namespace marlo::rma {

struct partition_owner {
  uint32_t memory_id;
  uint32_t second_id;
  bool operator==(const partition_owner& other) const {
    return memory_id == other.memory_id && second_id == other.second_id;
  }
  bool operator!=(const partition_owner& other) const { return !(*this == other); }
};

class partition_claims {
 public:
  enum class claim_result {
    added,    // the name was free and is `owner`'s now
    held,     // the name was `owner`'s already
    taken,    // another pair holds the name
    full,     // the name is new and the table holds its limit
  };

  explicit partition_claims(size_t limit) : limit_(limit) {}

  // Claims `name` for `owner` unless another pair holds it or the table is
  // full; `holder` receives the pair that holds the name when taken.
  claim_result claim(const std::string& name, partition_owner owner, partition_owner* holder) EXCLUDES(mutex_);
  // Takes back a claim that was just added for `owner` and could not be used
  // (its file was not created).
  void release(const std::string& name, partition_owner owner) EXCLUDES(mutex_);
  // True when a pair other than `owner` holds `name`, which it then names
  // in `holder`.
  bool held_by_other(const std::string& name, partition_owner owner, partition_owner* holder) const
      EXCLUDES(mutex_);

 private:
  const size_t limit_;
  mutable platform::mutex mutex_;
  std::map<std::string, partition_owner> owners_ GUARDED_BY(mutex_);
};

}  // namespace marlo::rma
