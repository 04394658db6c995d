#include "serializer/telemetry_header.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <numeric>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/mount_namespace.h"
#include "utility/clock.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Slice(const TelemetryHeader& header, size_t offset, size_t count) {
  const Bytes all = header.GetHeader();
  return Bytes(all.begin() + offset, all.begin() + offset + count);
}

TEST(TelemetryHeaderTest, ItemsLieWhereReceiversLook) {
  constexpr uint64_t kValue = 0x1122334455667788;
  const struct {
    int item;
    size_t offset;
    size_t bytes;  // 0: cannot be set.
    bool readable;
  } cases[] = {{-1, 0, 0, false}, {0, 0, 0, false},  {1, 8, 4, true},   {2, 41, 8, true},
               {3, 53, 8, true},  {4, 25, 4, false}, {5, 49, 4, false}, {6, 12, 1, false},
               {7, 13, 4, false}, {8, 30, 1, false}, {9, 0, 0, true},   {10, 61, 1, true},
               {11, 62, 4, true}, {12, 0, 0, false}};
  for (const auto& c : cases) {
    orb::LogCapture log;
    TelemetryHeader header;
    header.SetItem(c.item, kValue);
    Bytes want(66, 0);
    uint64_t want_read = 0;
    for (size_t i = 0; i < c.bytes; ++i) {
      want[c.offset + i] = static_cast<uint8_t>(kValue >> 8 * (c.bytes - 1 - i));
      want_read = want_read << 8 | want[c.offset + i];
    }
    EXPECT_EQ(header.GetHeader(), want) << c.item;
    EXPECT_EQ(header.GetItem(c.item), c.readable ? want_read : UINT64_MAX) << c.item;
    const std::string unknown = "Item: unknown CfgItem " + std::to_string(c.item) + "\n";
    EXPECT_EQ(log.Dump(), (c.bytes != 0 ? "" : "6 orb_sdk: Set" + unknown) +
                              (c.readable ? "" : "6 orb_sdk: Get" + unknown));
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

// The zone changes under a process that runs; it calls no tzset itself.
TEST(TelemetryHeaderTest, CarriesUptimeAndTheZoneOfNow) {
  const struct {
    const char* zone;
    Bytes want;
  } kCases[] = {
      {"UTC0", {0, 0}}, {"IST-5:30", {0x01, 0x4A}}, {"BRT3", {0xFF, 0x4C}}, {"XXX0:00:59", {0, 0}}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.zone);
    setenv("TZ", c.zone, 1);
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

// A compiled zone of one fixed offset.
std::string FixedZone(uint8_t quarter_hours) {
  std::string file = "TZif" + std::string(40, '\0');
  file[39] = 1;  // One kind of local time,
  file[43] = 4;  // whose name has four bytes.
  const uint32_t offset_s = quarter_hours * 900u;
  for (int shift = 24; shift >= 0; shift -= 8) file += static_cast<char>(offset_s >> shift);
  return file + std::string(2, '\0') + std::string("XXX", 4);
}

TEST(TelemetryHeaderTest, FollowsTheSystemsZone) {
  if (!orb::test::EnterMountNamespace() || mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "needs a mount namespace";
  }
  unsetenv("TZ");
  for (const uint8_t quarter_hours : {4, 22}) {
    ASSERT_TRUE(orb::test::WriteFile("/etc/new", FixedZone(quarter_hours)));
    std::filesystem::rename("/etc/new", "/etc/localtime");
    EXPECT_EQ(veskstats_timezone_min(), quarter_hours * 15);
  }
  umount("/etc");
}

TEST(TelemetryHeaderTest, ParsesInPlaceFromAnyPosition) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), fclose);
  ASSERT_NE(file, nullptr);
  Bytes content(166);
  std::iota(content.begin(), content.end(), uint8_t{0});
  ASSERT_EQ(fwrite(content.data(), 1, content.size(), file.get()), content.size());

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
