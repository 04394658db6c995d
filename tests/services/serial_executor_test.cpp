#include "services/common/serial_executor.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

namespace orb::services {
namespace {

using std::chrono::steady_clock;

TEST(SerialExecutorTest, RunsTasksInOrderOnAnotherThread) {
  std::vector<int> seen;
  std::promise<std::thread::id> last;
  SerialExecutor executor(10);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(executor.Post([&seen, i] { seen.push_back(i); }));
  EXPECT_TRUE(executor.Post([&] { last.set_value(std::this_thread::get_id()); }));
  EXPECT_NE(last.get_future().get(), std::this_thread::get_id());
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

TEST(SerialExecutorTest, BoundsAndDropsWhatWaitsBehindAStuckTask) {
  std::promise<void> entered;
  std::promise<void> release;
  bool second_ran = false;
  {
    SerialExecutor executor(1);
    EXPECT_TRUE(executor.Post([&] {
      entered.set_value();
      release.get_future().wait();
    }));
    entered.get_future().wait();
    EXPECT_TRUE(executor.Post([&] { second_ran = true; }));
    EXPECT_FALSE(executor.Post([] {})) << "took more than its bound";
    executor.Stop();
    EXPECT_FALSE(executor.Post([] {})) << "took a task after the stop";
    EXPECT_FALSE(executor.StoppedBy(steady_clock::now()));
    release.set_value();
    EXPECT_TRUE(executor.StoppedBy(steady_clock::now() + std::chrono::seconds(20)));
  }
  EXPECT_FALSE(second_ran);
}

TEST(SerialExecutorTest, RunsWhatWaitsBeforeItFinishes) {
  std::promise<void> release;
  int ran = 0;
  SerialExecutor executor(10);
  EXPECT_TRUE(executor.Post([&] { release.get_future().wait(); }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(executor.Post([&] { ++ran; }));
  executor.Finish();
  EXPECT_FALSE(executor.Post([] {})) << "took a task at the end";
  release.set_value();
  EXPECT_TRUE(executor.StoppedBy(steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_EQ(ran, 3);
}

}  // namespace
}  // namespace orb::services
