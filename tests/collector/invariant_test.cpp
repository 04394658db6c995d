// What a caller must not do ends the process, and the last line of the log names it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <utility>
#include <vector>

#include "collector/fd_handles.h"
#include "collector/kiv_collector.h"
#include "collector/worker_threads.h"
#include "ipc/collector_routes.h"
#include "utility/check.h"
#include "utility/checked.h"
#include "utility/hot_mutex.h"
#include "utility/quiet_write.h"
#include "utility/thread.h"

namespace orb::test {
namespace {

uint8_t AddUp(uint8_t a, uint8_t b) { return CheckedAdd<uint8_t>(a, b); }

kiv_cfg_s Record() {
  kiv_cfg_s record{};
  record.name = "radio";
  record.data_dir = "/tmp/";
  return record;
}

// A thread that is still there when the process ends.
void StartLasting(WorkerThreads* threads) {
  threads->Start("lasting", [] {
    while (true) pause();
  });
}

struct Case {
  const char* name;
  const char* says;
  std::function<void()> broken;
};
const Case kCases[] = {
    {"a condition", "orb_sdk.*invariant_test.cpp:[0-9]+: check failed: 1 \\+ 1 == 3",
     [] { ORB_CHECK(1 + 1 == 3); }},
    {"a sum", "AddUp:[0-9]+: check failed: a \\+ b fits", [] { AddUp(200, 56); }},
    {"a thread that is forgotten", "thread.h:[0-9]+: check failed: !joinable_",
     [] {
       Thread thread;
       thread.Start("forgotten", [] {});
     }},
    {"a long name", "check failed: strlen\\(name\\) <= kNameCharsMax",
     [] { Thread().Start("sixteen letters.", [] {}); }},
    {"a thread joined twice", "check failed: joinable_", [] { Thread().Join(); }},
    {"workers that are not joined", "worker_threads.h:[0-9]+: check failed: !any\\(\\)",
     [] {
       StopSignal stop;
       WorkerThreads threads(stop);
       StartLasting(&threads);
     }},
    {"a collector that may still be called", "check failed: abandoned_",
     [] {
       const kiv_cfg_s record = Record();
       kiv_collector collector(&record);
     }},
    {"a collector forgotten inside its own call", "check failed: !Pin::HeldByThisThread",
     [] {
       const kiv_cfg_s record = Record();
       kiv_collector collector(&record);
       CollectorRoutes routes;
       routes.Add("token", &collector);
       const CollectorRoutes::Pin first = routes.Find("token");
       const auto moved = routes.FindAll();
       routes.Forget(&collector);
     }},
    {"a set-up that never began", "check failed: \\*link != nullptr",
     [] {
       FdHandles::Setup setup;
       FdHandles().EndSetup(&setup, nullptr);
     }},
#if !defined(ORB_TSAN)  // The sanitizer ends the process before the check does.
    {"a lock that nobody holds", "check failed: \\(state & kHeld\\) != 0",
     []() ORB_NO_THREAD_SAFETY_ANALYSIS { HotMutex().Unlock(); }},
#endif
    {"a line without an end", "check failed: line.size\\(\\)",
     [] { LineOffer(-1).Add("half a line"); }},
};

TEST(InvariantDeathTest, NamesWhatIsBroken) {
  GTEST_FLAG_SET(death_test_style, "fast");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EXIT(c.broken(), testing::KilledBySignal(SIGABRT), c.says);
  }
}

// Forget() concerns the pins of its own collector only, in whatever order they end.
TEST(InvariantTest, AllowsPinsOfOtherCollectors) {
  const kiv_cfg_s record = Record();
  kiv_collector a(&record);
  kiv_collector b(&record);
  CollectorRoutes routes;
  routes.Add("a", &a);
  routes.Add("b", &b);
  {
    std::vector<CollectorRoutes::Pin> all = routes.FindAll();
    std::vector<CollectorRoutes::Pin> kept;
    kept.push_back(std::move(all.back()));
    all.clear();
    routes.Forget(&a);
  }
  routes.Forget(&b);
  EXPECT_FALSE(routes.Find("b"));
  a.Unroute();
  b.Unroute();
}

}  // namespace
}  // namespace orb::test
