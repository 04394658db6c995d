#include "reader/record_splitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace orb::reader {
namespace {

using ::testing::StartsWith;

// Built without the schema's code: version, then one record of each kind.
const std::string kVersion("\x08\x01");
const std::string kCounter("\x12\x06\x0a\x02\x08\x07\x10\x05");
const std::string kGauge("\x1a\x06\x0a\x02\x08\x08\x10\x09");
const std::string kHistogram("\x22\x08\x0a\x02\x08\x09\x12\x02\x01\x02");
const std::string kBlob("\x2a\x07\x0a\x02\x08\x0a\x12\x01!");

struct Split {
  std::string records;  // "2 counter 7, ": offset, kind and KPI.
  std::string damage;   // "" or where and what.
};

Split SplitAll(const std::string& payload) {
  RecordSplitter splitter(payload);
  PayloadRecord record;
  Split split;
  size_t count = 0;
  for (; splitter.Next(&record); ++count) {
    split.records += std::to_string(record.offset_bytes) + " " + NameOf(record.kind) + " " +
                     std::to_string(record.meta().kpi_id()) + ", ";
    EXPECT_EQ(record.data.ByteSizeLong(), record.size_bytes);
  }
  EXPECT_FALSE(splitter.Next(&record));
  EXPECT_EQ(splitter.count(), count);
  if (!splitter.damage().empty()) {
    split.damage = std::to_string(splitter.damage_offset_bytes()) + " " + splitter.damage();
  }
  return split;
}

// Cut anywhere: what is whole comes out, and the cut record is named.
TEST(RecordSplitterTest, TakesRecordsBackToBackUpToACut) {
  const std::string payload = kVersion + kCounter + kGauge + kHistogram + kBlob + kCounter;
  const std::pair<size_t, std::string> kEnds[] = {{0, ""},
                                                  {2, ""},
                                                  {10, "2 counter 7, "},
                                                  {18, "10 gauge 8, "},
                                                  {28, "18 histogram 9, "},
                                                  {37, "28 blob 10, "},
                                                  {45, "37 counter 7, "}};
  ASSERT_EQ(payload.size(), 45U);
  size_t whole = 0;
  std::string records;
  for (size_t cut = 0; cut <= payload.size(); ++cut) {
    SCOPED_TRACE(cut);
    if (whole < std::size(kEnds) - 1 && kEnds[whole + 1].first == cut)
      records += kEnds[++whole].second;
    const Split split = SplitAll(payload.substr(0, cut));
    EXPECT_EQ(split.records, records);
    const size_t end = kEnds[whole].first;
    EXPECT_THAT(split.damage, StartsWith(end == cut ? "" : std::to_string(end) + " "));
    EXPECT_EQ(split.damage.empty(), end == cut);
  }
}

TEST(RecordSplitterTest, NamesDamage) {
  const struct {
    std::string tail;
    const char* want;
  } kCases[] = {
      {std::string("\x32\x00", 2), "field 6 of wire type 2 is no record"},
      {std::string("\x0a\x00", 2), "field 1 of wire type 2 is no record"},
      {"\x10\x05", "field 2 of wire type 0 is no record"},
      {std::string(12, '\xff'), "the tag of a record is cut off or too long"},
      {"\x12" + std::string(12, '\xff'), "the length of a record is cut off"},
      {"\x2a\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01",
       "a blob of 18446744073709551615 bytes is cut off"},
      {"\x12\x02\x0a\x05", "a counter of 2 bytes is not well-formed"},
      {"\x08\x02", "version 2 of the records is not known"},
      {"\x08", "the version is cut off"},
  };
  for (const auto& c : kCases) {
    const Split split = SplitAll(kVersion + kCounter + c.tail);
    EXPECT_EQ(split.records, "2 counter 7, ");
    EXPECT_THAT(split.damage, StartsWith(std::string("10 ") + c.want));
  }
}

std::string Record(uint32_t kpi, const std::string& blob = "") {
  orbtr::KPIData data;
  orbtr::MetaData* const meta =
      blob.empty() ? data.add_counters()->mutable_meta() : data.add_blobs()->mutable_meta();
  meta->set_kpi_id(kpi);
  meta->set_ts_start(36000 + kpi);
  meta->set_ts_end(36100 + kpi);
  meta->set_num_samples(3);
  if (blob.empty()) {
    data.mutable_counters(0)->set_count(60);
  } else {
    data.mutable_blobs(0)->set_data(blob);
  }
  return data.SerializeAsString();
}

// The KPIs of all records that are found, and how many bytes are none.
std::string Salvage(const std::string& payload, size_t* skipped_bytes = nullptr) {
  RecordSplitter splitter(payload, RecordSplitter::Trust::kWary);
  PayloadRecord record;
  std::string kpis;
  size_t skipped = 0;
  for (;;) {
    while (splitter.Next(&record)) kpis += std::to_string(record.meta().kpi_id()) + " ";
    if (splitter.damage().empty()) break;
    skipped += splitter.Resync();
  }
  if (skipped_bytes != nullptr) *skipped_bytes = skipped;
  return kpis;
}

// What a full disk leaves: the start of a record, and the next ones behind it.
TEST(SalvageTest, FindsTheRecordBehindATornOneWhereverItTore) {
  size_t skipped = 0;
  for (const std::string& torn : {Record(2), Record(2, std::string(60, 'b'))}) {
    for (size_t kept = 1; kept < torn.size(); ++kept) {
      SCOPED_TRACE(kept);
      // A blob that ends with whole records is what a blob may be.
      if ((torn.size() - kept) % Record(3).size() == 0) continue;
      const std::string tail = torn.substr(0, kept) + Record(3) + Record(4);
      EXPECT_EQ(Salvage(kVersion + Record(1) + tail, &skipped), "1 3 4 ");
      EXPECT_EQ(skipped, kept);
    }
  }
  EXPECT_EQ(Salvage(kVersion + Record(1) + Record(2).substr(0, 9), &skipped), "1 ");
  EXPECT_EQ(skipped, 9U);
}

// A client's own buffers can be anything, and a later library may know more fields.
TEST(SalvageTest, KeepsWhatFollowsForeignBytesAndRecordsOfNewerClients) {
  std::string newer = Record(2) + std::string("\x38\x05", 2);
  newer[1] = static_cast<char>(newer[1] + 2);
  EXPECT_EQ(Salvage(Record(1) + newer + Record(3)), "1 2 3 ");
  EXPECT_EQ(Salvage(Record(1) + newer), "1 2 ");
  std::mt19937 random(7);
  std::string noise(10000, '\0');
  for (char& byte : noise) byte = static_cast<char>(random());
  size_t skipped = 0;
  EXPECT_EQ(Salvage(Record(1) + noise + Record(3), &skipped), "1 3 ") << "seed 7";
  EXPECT_EQ(skipped, noise.size());
}

// Each candidate claims all that is left: a search without a bound would take hours.
TEST(SalvageTest, GivesUpOnDataMadeOfFalseStarts) {
  std::string hostile("\xff");
  while (hostile.size() < (1U << 20)) hostile += std::string("\x2a\x80\x80\x20\x0a\x02\x08\x01", 8);
  size_t skipped = 0;
  Salvage(hostile, &skipped);
  EXPECT_GT(skipped, 1U << 19);
}

}  // namespace
}  // namespace orb::reader
