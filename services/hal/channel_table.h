// The regions that clients announced, by the token that names each.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "services/common/serial_executor.h"
#include "services/hal/caller.h"
#include "services/hal/shared_region.h"
#include "utility/thread_annotations.h"

namespace orb::hal {

// Tells a client that a slot is consumed: token, offset, size, result. Blocks
// until the client has taken note, or is dead.
using SlotDone = std::function<void(int32_t, int32_t, int32_t, int32_t)>;

// One announced region.
class Channel {
 public:
  static constexpr size_t kMaxUnconfirmed = 1024;

  Channel(const Caller& caller, std::shared_ptr<const SharedRegion> region, SlotDone done)
      : owner(caller), region(std::move(region)), done_(std::move(done)) {}

  const Caller owner;
  const std::shared_ptr<const SharedRegion> region;

  // Confirms a slot on the channel's own thread: a client that does not answer
  // keeps only its own slots. False when too many wait.
  bool Confirm(uint32_t token, uint32_t offset, uint32_t size);
  bool TooManyUnconfirmed() const { return unconfirmed_->load() >= kMaxUnconfirmed; }
  // Outlives the channel while a client has not taken note.
  const std::shared_ptr<services::SerialExecutor>& executor() const { return executor_; }

 private:
  const SlotDone done_;
  const std::shared_ptr<std::atomic<size_t>> unconfirmed_ =
      std::make_shared<std::atomic<size_t>>(0);
  const std::shared_ptr<services::SerialExecutor> executor_ =
      std::make_shared<services::SerialExecutor>(kMaxUnconfirmed);
};

// Thread-safe.
class ChannelTable {
 public:
  static constexpr size_t kMaxPerCaller = 32;
  static constexpr size_t kMaxChannels = 1024;

  ChannelTable();
  // Waits for confirmations that clients have not answered.
  ~ChannelTable() = default;

  // The new token, not 0; 0 when the caller or all have too many.
  uint32_t Add(const Caller& caller, std::shared_ptr<const SharedRegion> region, SlotDone done)
      ORB_EXCLUDES(mutex_);
  // Null unless the channel is the caller's own.
  std::shared_ptr<Channel> Find(const Caller& caller, uint32_t token) ORB_EXCLUDES(mutex_);
  // False when the channel is not the caller's own.
  bool Remove(const Caller& caller, uint32_t token) ORB_EXCLUDES(mutex_);
  // Whoever owned it; for a client that died.
  bool RemoveDead(uint32_t token) ORB_EXCLUDES(mutex_);
  bool Has(uint32_t token) const ORB_EXCLUDES(mutex_);

  // Takes no more slots to confirm, and gives the clients those that wait; false
  // when one is not confirmed by the deadline.
  bool FinishBy(std::chrono::steady_clock::time_point deadline) ORB_EXCLUDES(mutex_);

 private:
  using Channels = std::map<uint32_t, std::shared_ptr<Channel>>;
  void Retire(Channels::iterator at) ORB_REQUIRES(mutex_);

  mutable Mutex mutex_;
  Channels channels_ ORB_GUARDED_BY(mutex_);
  // Of closed channels. A confirmation may not have returned, and nobody else may
  // drop the last reference then, because the destructor waits.
  std::vector<std::shared_ptr<services::SerialExecutor>> retired_ ORB_GUARDED_BY(mutex_);
  uint32_t next_token_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::hal
