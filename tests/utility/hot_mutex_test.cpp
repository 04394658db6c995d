// Tests utility/hot_mutex.h: exclusion on the spinning and on the sleeping way.
#include "utility/hot_mutex.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

#include "tests/support/wait_for.h"

namespace orb::test {
namespace {

using std::chrono::milliseconds;

double ThreadSeconds() {
  timespec used;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

bool Sleeps(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("State:", 0) == 0) return line.find('S', 6) != std::string::npos;
  }
  return false;
}

// Some rounds are long enough for all others to fall asleep, and none may be
// forgotten there.
TEST(HotMutexTest, ExcludesAndWakesWhoSleeps) {
  constexpr int kRounds = 4000;
  constexpr int kRoundsBetweenLongOnes = 100;
  HotMutex mutex;
  int inside = 0;
  long entered = 0;
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < kRounds; ++i) {
        HotMutexLock lock(mutex);
        ASSERT_EQ(++inside, 1);
        if (i % kRoundsBetweenLongOnes == 0) {
          std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        --inside;
        ++entered;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(entered, static_cast<long>(kRounds) * static_cast<long>(threads.size()));
}

// Lets go of the lock while the thread sleeps for it, and takes it again at once,
// which one that is only then woken cannot be quick enough for: until the thread is
// served, or how often that worked is more than may be. Ends with the lock given up.
uint32_t Overtake(HotMutex* mutex, pid_t sleeper, const std::atomic<bool>& served)
    ORB_RELEASE(mutex) ORB_NO_THREAD_SAFETY_ANALYSIS {
  for (uint32_t times = 0;; ++times) {
    WaitFor([&] { return Sleeps(sleeper); });
    mutex->Unlock();
    if (!mutex->TryLockFor(milliseconds(0))) return times;
    if (!served && times < HotMutex::kSleepsMax) continue;
    mutex->Unlock();
    return served ? times : times + 1;
  }
}

TEST(HotMutexTest, ASleeperIsOvertakenAFewTimesAtMost) {
  for (int trial = 0; trial < 30; ++trial) {
    HotMutex mutex;
    std::atomic<pid_t> waiting{0};
    std::atomic<bool> served{false};
    mutex.Lock();
    std::thread waiter([&] {
      waiting = static_cast<pid_t>(syscall(SYS_gettid));
      HotMutexLock lock(mutex);
      served = true;
    });
    WaitFor([&] { return waiting != 0; });
    EXPECT_LE(Overtake(&mutex, waiting, served), HotMutex::kSleepsMax) << "trial " << trial;
    waiter.join();
  }
}

TEST(HotMutexTest, AWaiterSleepsAndGivesUpOnlyWhenAskedTo) {
  HotMutex mutex;
  double used = 0;
  bool in_time = true;
  mutex.Lock();
  std::thread waiter([&] {
    in_time = mutex.TryLockFor(milliseconds(2));
    const double before = ThreadSeconds();
    HotMutexLock lock(mutex);
    used = ThreadSeconds() - before;
  });
  std::this_thread::sleep_for(milliseconds(300));
  mutex.Unlock();
  waiter.join();
  EXPECT_FALSE(in_time);
  EXPECT_LT(used, 0.1) << "it spun";
  if (mutex.TryLockFor(milliseconds(0))) {
    mutex.Unlock();
  } else {
    ADD_FAILURE() << "nobody holds it";
  }
}

}  // namespace
}  // namespace orb::test
