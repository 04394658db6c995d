// Whether there is a HAL: sessions that gave their slots to one that has died have to
// begin again.
#pragma once

#include <binder/IBinder.h>

#include <functional>
#include <thread>

#include "utility/thread_annotations.h"

namespace orb::manager {

// Looks the HAL up until it is there, then waits for its death, and so on. Thread-safe.
class HalWatch {
 public:
  // Both are called on the watch's own thread, in turn, beginning with `came`.
  HalWatch(std::function<void()> came, std::function<void()> died);
  // Ends the thread; a look-up may take two seconds.
  ~HalWatch();
  HalWatch(const HalWatch&) = delete;
  HalWatch& operator=(const HalWatch&) = delete;

 private:
  class Notice;

  void Run() ORB_EXCLUDES(mutex_);
  // Null while there is none; otherwise `notice` comes when it dies.
  android::sp<android::IBinder> Find(const android::sp<Notice>& notice);
  void NoteDeath() ORB_EXCLUDES(mutex_);

  const std::function<void()> came_;
  const std::function<void()> died_;
  Mutex mutex_;
  CondVar changed_;
  bool dead_ ORB_GUARDED_BY(mutex_) = false;
  bool stopping_ ORB_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace orb::manager
