#include "collector/clock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

TEST(ClockTest, WallClocksAgree) {
  const int64_t before_s = curr_ts();
  const uint64_t now_ms = veskstats_real_time_ms();
  const int64_t after_s = curr_ts();
  EXPECT_GE(static_cast<int64_t>(now_ms / 1000), before_s);
  EXPECT_LE(static_cast<int64_t>(now_ms / 1000), after_s);
}

TEST(ClockTest, TimezoneIsMinutesEastOfUtc) {
  const struct {
    const char* tz;
    int32_t want;
  } cases[] = {{"UTC0", 0}, {"IST-5:30", 330}, {"BRT3", -180}, {"XXX0:00:59", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tz);
    setenv("TZ", c.tz, 1);
    tzset();
    EXPECT_EQ(veskstats_timezone_min(), c.want);
  }
}

TEST(ClockTest, HtonllReversesBytes) {
  EXPECT_EQ(htonll(0x0102030405060708u), 0x0807060504030201u);
  EXPECT_EQ(htonll(htonll(42)), 42u);
}

}  // namespace
