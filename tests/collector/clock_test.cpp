#include "collector/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(ClockTest, WallClocksAgree) {
  const int64_t before_s = curr_ts();
  const uint64_t now_ms = veskstats_real_time_ms();
  const int64_t after_s = curr_ts();
  EXPECT_GE(static_cast<int64_t>(now_ms / 1000), before_s);
  EXPECT_LE(static_cast<int64_t>(now_ms / 1000), after_s);
}

TEST(ClockTest, HtonllReversesBytes) {
  EXPECT_EQ(htonll(0x0102030405060708u), 0x0807060504030201u);
  EXPECT_EQ(htonll(htonll(42)), 42u);
}

}  // namespace
