#include "services/common/serial_executor.h"

#include <gtest/gtest.h>

#include <future>

namespace orb::services {
namespace {

using std::chrono::steady_clock;

TEST(SerialExecutorTest, RunsWhatWaitsInOrderBeforeItFinishes) {
  std::promise<void> release;
  std::string ran;
  SerialExecutor executor(10);
  EXPECT_TRUE(executor.Post([&] { release.get_future().wait(); }));
  for (const char letter : {'a', 'b', 'c'})
    EXPECT_TRUE(executor.Post([&, letter] { ran += letter; }));
  executor.Finish();
  EXPECT_FALSE(executor.Post([] {})) << "took a task at the end";
  release.set_value();
  EXPECT_TRUE(executor.StoppedBy(steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_EQ(ran, "abc");
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

}  // namespace
}  // namespace orb::services
