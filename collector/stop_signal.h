// The end of a collector, for the threads that work for it.
#pragma once

#include <atomic>
#include <cstdint>

#include "utility/thread_annotations.h"

// Raised once, when its owner is about to go. Thread-safe.
class StopSignal {
 public:
  void Raise() ORB_EXCLUDES(mutex_);
  bool raised() const { return raised_.load(); }
  // Returns after the seconds, or as soon as the signal is raised.
  void WaitFor(int32_t seconds) ORB_EXCLUDES(mutex_);
  // In the child of a fork(): false when one of the parent's threads was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) {
    cv_.ForgetWaiters();
    return mutex_.IsFree();
  }

 private:
  orb::Mutex mutex_;
  orb::CondVar cv_;
  std::atomic<bool> raised_{false};  // Set under mutex_, so that no waiter misses it.
};
