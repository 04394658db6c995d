// Whether a client dies soon after it was given a campaign: a client that does so again
// and again is ended by what the campaign has it do.
#pragma once

#include <chrono>

#include "utility/thread_annotations.h"

namespace orb::manager {

// One registration's starts. A start and the news of a death come on different threads:
// whichever is told last gets the verdict, so that a start has been saved before its
// death is booked. Thread-safe.
class StartWatch {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  enum class Verdict {
    kNone,   // Nothing to book: no campaign, or the other side will be told.
    kEarly,  // It died during a start, or within the limit after one.
    kLate,   // It outlived the limit, or left in order.
  };

  void Begin() ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    starting_ = true;
  }
  // `given`: the client runs the campaign, or died while it was asked to.
  Verdict End(bool given, TimePoint now) ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    starting_ = false;
    running_ = given;
    since_ = now;
    return given && dead_ ? Verdict::kEarly : Verdict::kNone;
  }
  // The session was stopped.
  void Stop() ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    running_ = false;
  }
  Verdict Die(TimePoint now, std::chrono::milliseconds limit) ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    dead_ = true;
    if (starting_ || !running_) return Verdict::kNone;
    return now - since_ < limit ? Verdict::kEarly : Verdict::kLate;
  }
  // The client de-registered.
  Verdict Leave() const ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return running_ ? Verdict::kLate : Verdict::kNone;
  }

 private:
  mutable Mutex mutex_;
  bool starting_ ORB_GUARDED_BY(mutex_) = false;
  bool running_ ORB_GUARDED_BY(mutex_) = false;
  bool dead_ ORB_GUARDED_BY(mutex_) = false;
  TimePoint since_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::manager
