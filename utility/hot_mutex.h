// A mutex for sections of some ten nanoseconds that many threads enter: one
// atomic instruction in, one out, both inlined. A thread that finds it held tries
// for about a microsecond, so that two that meet do not both pay for a wake-up,
// and then sleeps: the holder may have lost its processor to a thread of higher
// priority, which must not spin on it, or be in a long section after all.
// Non-recursive, without a condition variable. Tested by tests/utility/hot_mutex_test.cpp.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

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
  ~HotMutex() { ORB_TSAN_MUTEX(destroy(this, __tsan_mutex_not_static)); }
  HotMutex(const HotMutex&) = delete;
  HotMutex& operator=(const HotMutex&) = delete;

  void Lock() ORB_ACQUIRE() ORB_NO_THREAD_SAFETY_ANALYSIS {
    ORB_TSAN_MUTEX(pre_lock(this, 0));
    if (!Take()) SpinThenSleep();
    ORB_TSAN_MUTEX(post_lock(this, 0, 0));
  }

  void Unlock() ORB_RELEASE() ORB_NO_THREAD_SAFETY_ANALYSIS {
    ORB_TSAN_MUTEX(pre_unlock(this, 0));
    if (state_.exchange(kFree, std::memory_order_release) == kAwaited) WakeOne();
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

 private:
  enum State : uint32_t { kFree, kHeld, kAwaited };  // Awaited: held, and somebody may sleep.
  static constexpr int kSpinRounds = 6;

  bool Take() {
    uint32_t free = kFree;
    return state_.compare_exchange_strong(free, kHeld, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }

  // Out of the way: inlined, these would cost the quick path registers.
  [[gnu::noinline, gnu::cold]] void SpinThenSleep() {
    for (int round = 0; round < kSpinRounds; ++round) {
      for (int i = 0; i < (1 << round); ++i) Relax();
      if (Take()) return;
    }
    // Who slept cannot know whether it was the last, so it takes the lock as awaited.
    while (state_.exchange(kAwaited, std::memory_order_acquire) != kFree) {
      state_.wait(kAwaited, std::memory_order_relaxed);
    }
  }
  [[gnu::noinline, gnu::cold]] void WakeOne() { state_.notify_one(); }

  static void Relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
  }

  std::atomic<uint32_t> state_{kFree};
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
