// The contended paths of HotMutex.
// Tested by tests/utility/hot_mutex_test.cpp.
#include "utility/hot_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orb {
namespace {

constexpr int kSpinRounds = 8;  // 255 pauses: what a sleep and a wake-up would take.

// The kernel reads the state as a plain word.
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
              std::atomic<uint32_t>::is_always_lock_free);

// std::atomic::wait would do, but in libstdc++ it yields before it sleeps, and on
// an overloaded machine each yield costs a turn of every other thread.

// True when it was woken; false when the word was another one, or a signal came.
bool SleepWhile(std::atomic<uint32_t>* word, uint32_t value) {
  return syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0) == 0;
}

// Wakes the longest sleeper. Only the address is used: the mutex may be destroyed by now.
void WakeOne(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void Relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield");
#endif
}

}  // namespace

bool HotMutex::Take() {
  uint32_t state = state_.load(std::memory_order_relaxed);
  while ((state & (kHeld | kReserved)) == 0) {
    if (state_.compare_exchange_weak(state, state | kHeld, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

void HotMutex::SpinThenSleep() {
  for (int round = 0; round < kSpinRounds; ++round) {
    if (Take()) return;
    for (int i = 0; i < (1 << round); ++i) Relax();
  }
  Sleep();
}

void HotMutex::Sleep() {
  uint32_t state = state_.fetch_add(kOneSleeper, std::memory_order_relaxed) + kOneSleeper;
  bool woken = false;
  for (uint32_t sleeps = 0;;) {
    const bool starved = sleeps >= kSleepsMax;
    // A reserved lock is for threads that were woken for it. A starved thread takes it
    // anyway and ends the reservation.
    if ((state & kHeld) == 0 && ((state & kReserved) == 0 || woken || starved)) {
      const uint32_t kept = state & (starved ? ~(kWoken | kReserved) : ~kWoken);
      if (state_.compare_exchange_weak(state, (kept - kOneSleeper) | kHeld,
                                       std::memory_order_acquire, std::memory_order_relaxed)) {
        return;
      }
      continue;
    }
    // It falls asleep only while no sleeper counts as woken, so the next release wakes
    // a sleeper, this one or another.
    const uint32_t asleep = (state & ~kWoken) | (starved ? kReserved : 0);
    if (state != asleep &&
        !state_.compare_exchange_weak(state, asleep, std::memory_order_relaxed)) {
      continue;
    }
    woken = SleepWhile(&state_, asleep);
    ++sleeps;
    state = state_.load(std::memory_order_relaxed);
  }
}

void HotMutex::ReleaseAndWake() {
  uint32_t state = state_.load(std::memory_order_relaxed);
  uint32_t released;
  do {
    ORB_CHECK((state & kHeld) != 0);
    released = state & ~kHeld;
    if (released >= kOneSleeper) released |= kWoken;
  } while (!state_.compare_exchange_weak(state, released, std::memory_order_release,
                                         std::memory_order_relaxed));
  // Do not touch the mutex from here on: its next holder may destroy it.
  if (released != (state & ~kHeld)) WakeOne(&state_);
}

}  // namespace orb
