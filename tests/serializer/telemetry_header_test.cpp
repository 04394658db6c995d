#include "serializer/telemetry_header.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <memory>
#include <string>

#include "collector/clock.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Slice(const TelemetryHeader& header, size_t offset, size_t count) {
  const Bytes all = header.GetHeader();
  return Bytes(all.begin() + offset, all.begin() + offset + count);
}

TEST(TelemetryHeaderTest, ConstantsAndNothingElse) {
  TelemetryHeader header;
  header.SetConstantItems();
  Bytes want(66, 0);
  want[3] = 9;
  want[7] = 66;
  want[29] = 1;
  EXPECT_EQ(header.GetHeader(), want);
  EXPECT_EQ(TelemetryHeader::Size(), 66u);
}

TEST(TelemetryHeaderTest, ItemsLieWhereReceiversLook) {
  constexpr uint64_t kValue = 0x1122334455667788;
  const Bytes word = {0x55, 0x66, 0x77, 0x88};
  const Bytes wide = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  const struct {
    int item;
    size_t offset;
    Bytes want;
    uint64_t get;  // 0: not readable.
  } kCases[] = {
      {1, 8, word, 0x55667788},   {2, 41, wide, kValue}, {3, 53, wide, kValue},
      {4, 25, word, 0},           {5, 49, word, 0},      {6, 12, {0x88}, 0},
      {7, 13, word, 0},           {8, 30, {0x88}, 0},    {10, 61, {0x88}, 0x88},
      {11, 62, word, 0x55667788},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.item);
    orb::LogCapture log;
    TelemetryHeader header;
    header.SetItem(c.item, kValue);
    EXPECT_TRUE(log.Lines().empty());
    Bytes want(66, 0);
    std::copy(c.want.begin(), c.want.end(), want.begin() + c.offset);
    EXPECT_EQ(header.GetHeader(), want);
    EXPECT_EQ(header.GetItem(c.item), c.get != 0 ? c.get : UINT64_MAX);
    const std::string line = "GetItem: unknown CfgItem " + std::to_string(c.item);
    EXPECT_EQ(log.Has(ANDROID_LOG_ERROR, "orb_sdk", line), c.get == 0);
  }
}

TEST(TelemetryHeaderTest, RefusesTheTimestampAndUnknownItems) {
  for (int item : {-1, 0, 9, 12}) {
    orb::LogCapture log;
    TelemetryHeader header;
    header.SetItem(item, UINT64_MAX);
    EXPECT_EQ(header.GetHeader(), Bytes(66, 0));
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_ERROR, "orb_sdk", "SetItem: unknown CfgItem " + std::to_string(item)));
  }
}

uint64_t Stamp() {
  TelemetryHeader header;
  header.SetTimestampItems();
  return header.GetItem(TelemetryHeader::HDR_ITEM_TIMESTAMP);
}

TEST(TelemetryHeaderTest, StampsRepeatOnceThenCountOn) {
  EXPECT_GT(last_timestamp_for_header.load(), 0u) << "loading the library seeds it";
  const uint64_t before = veskstats_real_time_ms();
  last_timestamp_for_header = 0;
  EXPECT_GE(Stamp(), before);
  EXPECT_LE(last_timestamp_for_header, veskstats_real_time_ms());

  const uint64_t used = veskstats_real_time_ms() + 3'600'000;  // Every look at the clock is below.
  last_timestamp_for_header = used;
  EXPECT_EQ(Stamp(), used);
  EXPECT_EQ(Stamp(), used + 1);
  EXPECT_EQ(Stamp(), used + 2);
}

TEST(TelemetryHeaderTest, CarriesUptimeAndTimeZone) {
  const struct {
    const char* zone;
    Bytes want;
  } kCases[] = {
      {"UTC0", {0, 0}}, {"IST-5:30", {0x01, 0x4A}}, {"BRT3", {0xFF, 0x4C}}, {"XXX0:00:59", {0, 0}}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.zone);
    setenv("TZ", c.zone, 1);
    tzset();
    TelemetryHeader header;
    const uint64_t before = veskstats_uptime_ms();
    header.SetTimestampItems();
    EXPECT_EQ(Slice(header, 39, 2), c.want);
    uint64_t uptime = 0;
    for (uint8_t byte : Slice(header, 31, 8)) uptime = uptime << 8 | byte;
    EXPECT_GE(uptime, before);
    EXPECT_LE(uptime, veskstats_uptime_ms());
  }
}

TEST(TelemetryHeaderTest, ParsesInPlaceFromAnyPosition) {
  orb::test::TempDir dir;
  std::string content;
  for (int i = 0; i < 166; ++i) content.push_back(static_cast<char>(i));
  ASSERT_TRUE(orb::test::WriteFile(dir.path() + "/data", content));
  const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen((dir.path() + "/data").c_str(), "r+b"),
                                                   fclose);
  ASSERT_NE(file, nullptr);

  TelemetryHeader header;
  ASSERT_EQ(fseek(file.get(), 100, SEEK_SET), 0);
  EXPECT_EQ(header.ParseFromFile(file.get()), 0);
  EXPECT_EQ(ftell(file.get()), 100);
  EXPECT_EQ(header.GetHeader(), Bytes(content.begin() + 100, content.end()));

  ASSERT_EQ(fseek(file.get(), 164, SEEK_SET), 0);  // A short read keeps the rest.
  EXPECT_EQ(header.ParseFromFile(file.get()), 0);
  EXPECT_EQ(ftell(file.get()), 164);
  EXPECT_EQ(Slice(header, 0, 3), (Bytes{164, 165, 102}));
}

}  // namespace
