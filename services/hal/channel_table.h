// The regions that clients announced, by the token that names each.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "services/hal/caller.h"
#include "services/hal/completions.h"
#include "services/hal/fair_share.h"
#include "services/hal/shared_region.h"
#include "utility/thread_annotations.h"

namespace orb::hal {

// One announced region. Immutable; any thread.
struct Channel {
  Caller owner;
  std::shared_ptr<const SharedRegion> region;
  std::shared_ptr<const SendNotice> done;  // Tells its client that a slot is consumed.
};

// Thread-safe.
class ChannelTable {
 public:
  static constexpr size_t kMaxPerCaller = 32;

  // For at most `most` channels, each with a descriptor.
  explicit ChannelTable(size_t most);

  // The new token, not 0; 0 when the caller, its user or all have too many.
  uint32_t Add(Channel channel) ORB_EXCLUDES(mutex_);
  // Null unless the channel is the caller's own.
  std::shared_ptr<const Channel> Find(const Caller& caller, uint32_t token) ORB_EXCLUDES(mutex_);
  // False when the channel is not the caller's own. Whoever still reads the region keeps it
  // until that is done.
  bool Remove(const Caller& caller, uint32_t token) ORB_EXCLUDES(mutex_);
  // Takes away the channel of a client that died, whoever that was. Null when no channel
  // has this token.
  std::shared_ptr<const Channel> RemoveDead(uint32_t token) ORB_EXCLUDES(mutex_);
  bool Has(uint32_t token) const ORB_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::map<uint32_t, std::shared_ptr<const Channel>> channels_ ORB_GUARDED_BY(mutex_);
  std::map<Caller, size_t> own_ ORB_GUARDED_BY(mutex_);  // How many each has.
  FairShare places_ ORB_GUARDED_BY(mutex_);
  uint32_t next_token_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::hal
