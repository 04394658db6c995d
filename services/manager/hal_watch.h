// Whether there is a HAL: sessions that gave their slots to one that has died have to
// begin again.
#pragma once

#include <binder/IBinder.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>

#include "utility/thread_annotations.h"

namespace orb::manager {

// Looks the HAL up until it is there, then waits for its death, and so on. Thread-safe.
class HalWatch {
 public:
  // How long Look waits for a HAL that is on the bus and does not answer.
  static constexpr std::chrono::milliseconds kPatience{250};

  // Both are called on the watch's own thread, in turn, beginning with `came`.
  HalWatch(std::function<void()> came, std::function<void()> died);
  // Ends the thread; a look-up may take two seconds.
  ~HalWatch();
  HalWatch(const HalWatch&) = delete;
  HalWatch& operator=(const HalWatch&) = delete;

  // Looks for the HAL at once if none is known: one that is there has `come` when this
  // returns. Returns without that after kPatience, and where the bus forbids to ask.
  void Look() ORB_EXCLUDES(mutex_);

 private:
  class Notice;

  void Run() ORB_EXCLUDES(mutex_);
  // Null while there is none; otherwise `notice` comes when it dies.
  android::sp<android::IBinder> Find(const android::sp<Notice>& notice);
  // Waits until the HAL is dead, or is to be looked for again. False when the watch ends.
  bool WaitAfterLook(bool found) ORB_EXCLUDES(mutex_);
  void NoteDeath() ORB_EXCLUDES(mutex_);

  const std::function<void()> came_;
  const std::function<void()> died_;
  Mutex mutex_;
  CondVar changed_;
  bool dead_ ORB_GUARDED_BY(mutex_) = false;
  bool known_ ORB_GUARDED_BY(mutex_) = false;      // The last look found it, and it lives.
  bool forbidden_ ORB_GUARDED_BY(mutex_) = false;  // The bus did not allow the last look.
  bool asked_ ORB_GUARDED_BY(mutex_) = false;      // Somebody waits for the next look.
  uint64_t looks_begun_ ORB_GUARDED_BY(mutex_) = 0;
  uint64_t looks_ended_ ORB_GUARDED_BY(mutex_) = 0;
  bool stopping_ ORB_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace orb::manager
