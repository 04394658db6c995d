// Tested by tests/services/hal_test.cpp.
#include "services/hal/pending_queues.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace orb::hal {
namespace {

using Clock = std::chrono::steady_clock;

// How long the queue of a dead process may stay while others configure theirs.
constexpr std::chrono::milliseconds kSweepInterval(1000);

}  // namespace

// Another user's process may not be signalled, but that is only refused while there is
// one. A new process with the number of a dead one keeps its queue, which does no harm.
bool PendingQueues::ProcessIsGone(pid_t process) {
  return process > 0 && kill(process, 0) != 0 && errno == ESRCH;
}

bool PendingQueues::Put(const Caller& caller, std::shared_ptr<const PayloadQueue> queue) {
  const Clock::time_point deadline = Clock::now() + patience_;
  MutexLock lock(mutex_);
  Sweep(Clock::now());
  const auto own = queues_.find(caller);
  if (own != queues_.end()) {
    own->second.swap(queue);  // The old queue is destroyed unlocked.
    return true;
  }
  if (!places_.Take(caller.uid)) {
    if (waiting_ >= kMostWaiting) return false;
    ++waiting_;
    bool placed = false;
    bool in_time = true;
    while (!placed && in_time) {
      in_time = freed_.WaitUntil(mutex_, std::min(deadline, swept_ + kSweepInterval)) ||
                Clock::now() < deadline;
      Sweep(Clock::now());
      placed = places_.Take(caller.uid);
    }
    --waiting_;
    if (!placed) return false;
  }
  if (queues_.try_emplace(caller, queue).second) return true;
  // Another thread of the process was first, and has a place for it.
  places_.Give(caller.uid);
  queues_[caller].swap(queue);
  return true;
}

std::shared_ptr<const PayloadQueue> PendingQueues::Take(const Caller& caller) {
  MutexLock lock(mutex_);
  const auto found = queues_.find(caller);
  if (found == queues_.end()) return nullptr;
  std::shared_ptr<const PayloadQueue> queue = std::move(found->second);
  Erase(found);
  return queue;
}

void PendingQueues::Erase(Queues::iterator at) {
  places_.Give(at->first.uid);
  queues_.erase(at);
  freed_.NotifyAll();
}

void PendingQueues::Sweep(Clock::time_point now) {
  if (now < swept_ + kSweepInterval) return;
  swept_ = now;
  for (auto next = queues_.begin(); next != queues_.end();) {
    const auto queue = next++;
    if (is_gone_(queue->first.pid)) Erase(queue);
  }
}

}  // namespace orb::hal
