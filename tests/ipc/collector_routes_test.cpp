#include "ipc/collector_routes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// The routes never look into a collector: any address does.
kiv_collector* Collector(int which) {
  static char storage[3];
  return reinterpret_cast<kiv_collector*>(&storage[which]);
}

TEST(CollectorRoutesTest, LatestRegistrationOfATokenWins) {
  CollectorRoutes routes;
  EXPECT_FALSE(routes.Find("a"));
  routes.Add("a", Collector(0));
  routes.Add("a", Collector(1));
  EXPECT_EQ(routes.Find("a").operator->(), Collector(1));
  EXPECT_EQ(routes.FindAll().size(), 1u);
}

TEST(CollectorRoutesTest, RegionsOutliveTokens) {
  CollectorRoutes routes;
  routes.Add("a", Collector(0));
  routes.AddRegion(7, "a");
  routes.AddRegion(8, "unknown");
  routes.RemoveAll();
  EXPECT_FALSE(routes.Find("a"));
  EXPECT_EQ(routes.FindRegion(7).operator->(), Collector(0));
  EXPECT_FALSE(routes.FindRegion(8));
  routes.RemoveRegion(7);
  EXPECT_FALSE(routes.FindRegion(7));
}

TEST(CollectorRoutesTest, ForgetWaitsForEveryPinOfThatCollector) {
  CollectorRoutes routes;
  routes.Add("a", Collector(0));
  routes.Add("b", Collector(1));
  routes.AddRegion(7, "a");
  std::vector<CollectorRoutes::Pin> pins;
  pins.push_back(routes.Find("a"));
  pins.push_back(routes.FindRegion(7));
  const CollectorRoutes::Pin other = routes.Find("b");

  std::atomic<bool> released{false};
  std::thread forgetter([&] {
    routes.Forget(Collector(0));
    EXPECT_TRUE(released);
  });
  // Entries go at once, before the wait.
  while (routes.Find("a")) std::this_thread::yield();
  EXPECT_FALSE(routes.FindRegion(7));
  pins.pop_back();
  released = true;
  pins.clear();
  forgetter.join();
  EXPECT_TRUE(routes.Find("b"));
}

}  // namespace
