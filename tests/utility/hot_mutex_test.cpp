// Tests utility/hot_mutex.h: exclusion on the spinning and on the sleeping way.
#include "utility/hot_mutex.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <ctime>
#include <thread>

namespace orb::test {
namespace {

using std::chrono::milliseconds;

double ThreadSeconds() {
  timespec used;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
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
