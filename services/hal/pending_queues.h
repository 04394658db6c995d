// The queue that each process configured last, until it asks to read it. A queue is kept as
// long as its owner lives: a process that finds no place waits for one.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>

#include "services/hal/caller.h"
#include "services/hal/fair_share.h"
#include "services/hal/payload_queue.h"
#include "utility/thread_annotations.h"

namespace orb::hal {

// Thread-safe.
class PendingQueues {
 public:
  // Threads that wait for a place at a time: half of those that serve calls, so that the
  // calls which give places back always find one.
  static constexpr size_t kMostWaiting = 8;
  static constexpr std::chrono::milliseconds kPatience{5000};

  // Whether there is no such process any more. Any thread.
  using IsGone = bool (*)(pid_t process);
  static bool ProcessIsGone(pid_t process);

  // For at most `most` queues, each with a descriptor.
  PendingQueues(size_t most, std::chrono::milliseconds patience, IsGone is_gone)
      : patience_(patience), is_gone_(is_gone), places_(most) {}

  // Replaces the caller's queue. With no place for the user it waits for one; false when there
  // was none in time, or too many wait already.
  bool Put(const Caller& caller, std::shared_ptr<const PayloadQueue> queue) ORB_EXCLUDES(mutex_);
  // Null when the caller has none; it has none afterwards.
  std::shared_ptr<const PayloadQueue> Take(const Caller& caller) ORB_EXCLUDES(mutex_);

 private:
  using Queues = std::map<Caller, std::shared_ptr<const PayloadQueue>>;
  // The caller destroys the queue, unlocked: it holds a copy.
  void Erase(Queues::iterator at) ORB_REQUIRES(mutex_);
  // Drops the queues of processes that are gone, unless that was done a moment ago.
  void Sweep(std::chrono::steady_clock::time_point now) ORB_REQUIRES(mutex_);

  const std::chrono::milliseconds patience_;
  const IsGone is_gone_;
  Mutex mutex_;
  CondVar freed_;
  Queues queues_ ORB_GUARDED_BY(mutex_);
  FairShare places_ ORB_GUARDED_BY(mutex_);
  size_t waiting_ ORB_GUARDED_BY(mutex_) = 0;
  std::chrono::steady_clock::time_point swept_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::hal
