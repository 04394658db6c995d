// A mutex for sections of some ten nanoseconds that many threads enter: one
// atomic instruction in, one out, both inlined. A thread that finds it held tries
// for a few microseconds, so that two that meet do not both pay for a wake-up,
// and then sleeps: the holder may have lost its processor to a thread of higher
// priority, which must not spin on it, or be in a long section after all.
//
// Any thread may take a free lock, even before a thread that was woken for it. A
// thread that was woken kSleepsMax times in vain reserves the lock: from then on it
// goes from one sleeper to the next, in their order, until that thread has had it.
// So no thread waits for ever, however busy the others and the processors
// are.
//
// Non-recursive, without a condition variable. It may be destroyed once no thread
// is inside a call of it. Tested by tests/utility/hot_mutex_test.cpp.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "utility/check.h"
#include "utility/thread_annotations.h"

#if defined(__SANITIZE_THREAD__)
#define ORB_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORB_TSAN 1
#endif
#endif

// The sanitizer sees the order of locks in mutexes that it knows of only.
#if defined(ORB_TSAN)
#include <sanitizer/tsan_interface.h>
#define ORB_TSAN_MUTEX(call) __tsan_mutex_##call
#else
#define ORB_TSAN_MUTEX(call) static_cast<void>(0)
#endif

namespace orb {

class ORB_CAPABILITY("mutex") HotMutex {
 public:
  HotMutex() { ORB_TSAN_MUTEX(create(this, __tsan_mutex_not_static)); }
  ~HotMutex() {
    ORB_CHECK((state_.load(std::memory_order_relaxed) & kHeld) == 0);
    ORB_TSAN_MUTEX(destroy(this, __tsan_mutex_not_static));
  }
  HotMutex(const HotMutex&) = delete;
  HotMutex& operator=(const HotMutex&) = delete;

  void Lock() ORB_ACQUIRE() ORB_NO_THREAD_SAFETY_ANALYSIS {
    ORB_TSAN_MUTEX(pre_lock(this, 0));
    if (!TakeUnused()) SpinThenSleep();
    ORB_TSAN_MUTEX(post_lock(this, 0, 0));
  }

  void Unlock() ORB_RELEASE() ORB_NO_THREAD_SAFETY_ANALYSIS {
    ORB_TSAN_MUTEX(pre_unlock(this, 0));
    uint32_t alone = kHeld;
    if (!state_.compare_exchange_strong(alone, 0, std::memory_order_release,
                                        std::memory_order_relaxed)) {
      ReleaseAndWake();
    }
    ORB_TSAN_MUTEX(post_unlock(this, 0));
  }

  // False when it could not be had in time. Looks every millisecond.
  bool TryLockFor(std::chrono::milliseconds wait)
      ORB_TRY_ACQUIRE(true) ORB_NO_THREAD_SAFETY_ANALYSIS {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    ORB_TSAN_MUTEX(pre_lock(this, __tsan_mutex_try_lock));
    bool taken = Take();
    while (!taken && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      taken = Take();
    }
    ORB_TSAN_MUTEX(post_lock(
        this, taken ? __tsan_mutex_try_lock : __tsan_mutex_try_lock | __tsan_mutex_try_lock_failed,
        0));
    return taken;
  }

  // Wake-ups in vain before a thread reserves the lock.
  static constexpr uint32_t kSleepsMax = 4;

 private:
  // The state is these bits and the number of sleepers: the threads that sleep, or
  // have slept and do not have the lock yet.
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kWoken = 2;  // A sleeper is awake; no other need be woken.
  static constexpr uint32_t kReserved = 4;
  static constexpr uint32_t kOneSleeper = 8;

  // Takes the lock if it is free and no thread sleeps for it.
  bool TakeUnused() {
    uint32_t unused = 0;
    return state_.compare_exchange_strong(unused, kHeld, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }
  // Takes the lock if it is free and not reserved.
  bool Take();

  // Not inlined: these would cost the quick path registers.
  [[gnu::cold]] void SpinThenSleep();
  [[gnu::cold]] void ReleaseAndWake();
  void Sleep();

  std::atomic<uint32_t> state_{0};
};

class ORB_SCOPED_CAPABILITY HotMutexLock {
 public:
  explicit HotMutexLock(HotMutex& mutex) ORB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~HotMutexLock() ORB_RELEASE() { mutex_.Unlock(); }
  HotMutexLock(const HotMutexLock&) = delete;
  HotMutexLock& operator=(const HotMutexLock&) = delete;

 private:
  HotMutex& mutex_;
};

}  // namespace orb
