#include "tests/support/log_capture.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace orb {
namespace {

void Say(const char* text) { __android_log_print(ANDROID_LOG_VERBOSE, "t", "%s", text); }

TEST(LogCaptureTest, KeepsLinesOfAllThreadsWhileItLives) {
  auto outer = std::make_unique<LogCapture>();
  {
    LogCapture inner;
    std::thread other([] {
      for (int i = 0; i < 100; ++i) Say("from a thread");
    });
    EXPECT_TRUE(inner.WaitFor("thread", 100)) << inner.Dump();
    other.join();
    EXPECT_EQ(inner.Count("from a"), 100u);
    EXPECT_TRUE(inner.Has(ANDROID_LOG_VERBOSE, "t", "from a thread"));
    EXPECT_FALSE(inner.Has(ANDROID_LOG_ERROR, "t", "from a thread"));
    EXPECT_FALSE(inner.WaitFor("never", 1, std::chrono::milliseconds(1)));
  }
  Say("after");
  EXPECT_EQ(outer->Lines().size(), 101u);
  EXPECT_TRUE(outer->Contains("after"));
  outer.reset();
  Say("to stderr");
}

}  // namespace
}  // namespace orb
