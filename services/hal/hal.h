// The HAL's whole behaviour, without the bus: payloads by queue and slots by
// shared memory become files of the spool. Every argument comes from a client
// and may be anything.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "services/hal/caller.h"
#include "services/hal/channel_table.h"
#include "services/hal/completions.h"
#include "services/hal/folder_owners.h"
#include "services/hal/payload_queue.h"
#include "services/hal/pending_queues.h"
#include "services/hal/spool.h"
#include "utility/unique_fd.h"

namespace orb::hal {

// What clients may leave with the HAL between their calls, each with one descriptor.
struct HalLimits {
  size_t queues = 0;
  size_t channels = 0;
  std::chrono::milliseconds queue_patience = PendingQueues::kPatience;
  PendingQueues::IsGone is_gone = PendingQueues::ProcessIsGone;
  std::chrono::milliseconds notice_patience = Completions::kPatience;

  // Divides the descriptors that this process may open.
  static HalLimits OfProcess();
};

// Thread-safe. Refusals are logged with the caller.
class Hal {
 public:
  // Takes spool and owners. Without owners anybody may store in any folder.
  explicit Hal(std::unique_ptr<Spool> spool, std::unique_ptr<FolderOwners> owners = nullptr,
               const HalLimits& limits = HalLimits::OfProcess());

  // Takes the queue of the caller's next payload, which replaces an earlier one. Waits a
  // while when there are too many.
  bool ConfigureQueue(const Caller& caller, QueueLayout queue);
  // Takes `total` bytes from that queue, and stores them. True once they are on
  // the medium. The queue is used up either way.
  bool StoreQueue(const Caller& caller, const std::string& name, int32_t total);

  // Takes a region; `offset` and `length` are unsigned. The channel's token, or
  // 0 when it is refused.
  uint32_t AddChannel(const Caller& caller, UniqueFd fd, int32_t offset, int32_t length,
                      SendNotice done);
  // Copies a slot out and stores it behind `header`. 0 once it is on the medium;
  // the client is told that the slot is free soon after, from another thread.
  // Otherwise a negative errno value, and nobody is told.
  int32_t StoreSlot(const Caller& caller, const std::string& name, std::span<const uint8_t> header,
                    int32_t token, int32_t offset, int32_t size);
  bool RemoveChannel(const Caller& caller, int32_t token);
  void ChannelDied(uint32_t token);

  // Takes no more slots to confirm, and sends the clients the confirmations that wait;
  // false when one is not sent by the deadline.
  bool FinishBy(std::chrono::steady_clock::time_point deadline) {
    return completions_.FinishBy(deadline);
  }

  const Spool& spool() const { return *spool_; }
  const ChannelTable& channels() const { return channels_; }

 private:
  bool MayStore(const Caller& caller, const std::string& name) {
    return owners_ == nullptr || owners_->Admit(caller, name);
  }

  const std::unique_ptr<Spool> spool_;
  const std::unique_ptr<FolderOwners> owners_;
  PendingQueues queues_;
  ChannelTable channels_;
  Completions completions_;
};

}  // namespace orb::hal
