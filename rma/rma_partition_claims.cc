#include "rma/rma_partition_claims.h"

namespace marlo::rma {

partition_claims::claim_result partition_claims::claim(const std::string& name, partition_owner owner,
                                                       partition_owner* holder) {
  platform::lock_guard lock(mutex_);
  const auto found = owners_.find(name);
  if (found != owners_.end()) {
    if (found->second == owner) return claim_result::held;
    *holder = found->second;
    return claim_result::taken;
  }
  if (owners_.size() >= limit_) return claim_result::full;
  owners_.emplace(name, owner);
  return claim_result::added;
}

void partition_claims::release(const std::string& name, partition_owner owner) {
  platform::lock_guard lock(mutex_);
  const auto found = owners_.find(name);
  if (found != owners_.end() && found->second == owner) owners_.erase(found);
}

bool partition_claims::held_by_other(const std::string& name, partition_owner owner, partition_owner* holder) const {
  platform::lock_guard lock(mutex_);
  const auto found = owners_.find(name);
  if (found == owners_.end() || found->second == owner) return false;
  *holder = found->second;
  return true;
}

}  // namespace marlo::rma
