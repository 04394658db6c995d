// Tells the threads that work for a collector that it is about to end.
#pragma once

#include <atomic>
#include <cstdint>

#include "utility/thread_annotations.h"

// Raised once, before its owner is destroyed. Thread-safe.
class StopSignal {
 public:
  void Raise() ORB_EXCLUDES(mutex_);
  bool raised() const { return raised_.load(); }
  // Returns after the seconds, or as soon as the signal is raised.
  void WaitFor(int32_t seconds) ORB_EXCLUDES(mutex_);
  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) {
    cv_.ForgetWaiters();
    return mutex_.IsFree();
  }

 private:
  orb::Mutex mutex_;
  orb::CondVar cv_;
  std::atomic<bool> raised_{false};  // Set under mutex_, so that no waiter misses it.
};
