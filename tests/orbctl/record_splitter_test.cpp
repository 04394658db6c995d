#include "tools/orbctl/record_splitter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orb::orbctl {
namespace {

// Built without the schema's code: version, then one record of each kind.
const std::string kVersion("\x08\x01");
const std::string kCounter("\x12\x06\x0a\x02\x08\x07\x10\x05");
const std::string kGauge("\x1a\x06\x0a\x02\x08\x08\x10\x09");
const std::string kHistogram("\x22\x08\x0a\x02\x08\x09\x12\x02\x01\x02");
const std::string kBlob("\x2a\x07\x0a\x02\x08\x0a\x12\x01!");

struct Split {
  std::vector<std::string> records;  // "counter 7" and so on, by kind and KPI.
  std::vector<size_t> offsets;
  std::string damage;
  size_t damage_offset = 0;
};

Split SplitAll(const std::string& payload) {
  RecordSplitter splitter(payload);
  PayloadRecord record;
  Split split;
  while (splitter.Next(&record)) {
    split.records.push_back(std::string(KindName(record.kind)) + " " +
                            std::to_string(record.meta().kpi_id()));
    split.offsets.push_back(record.offset_bytes);
    EXPECT_EQ(record.data.ByteSizeLong(), record.size_bytes);
  }
  EXPECT_FALSE(splitter.Next(&record));
  EXPECT_EQ(splitter.count(), split.records.size());
  split.damage = splitter.damage();
  split.damage_offset = splitter.damage_offset_bytes();
  return split;
}

TEST(RecordSplitterTest, TakesRecordsBackToBack) {
  const Split split = SplitAll(kVersion + kCounter + kGauge + kHistogram + kBlob + kCounter);
  EXPECT_EQ(split.records, (std::vector<std::string>{"counter 7", "gauge 8", "histogram 9",
                                                     "blob 10", "counter 7"}));
  EXPECT_EQ(split.offsets, (std::vector<size_t>{2, 10, 18, 28, 37}));
  EXPECT_EQ(split.damage, "");
  for (const std::string& payload : {std::string(), kVersion}) {
    EXPECT_EQ(SplitAll(payload).records.size(), 0u);
    EXPECT_EQ(SplitAll(payload).damage, "");
  }
}

// Cut anywhere: what is whole comes out, and the cut record is named.
TEST(RecordSplitterTest, KeepsWhatCameBeforeACut) {
  const std::string payload = kVersion + kCounter + kHistogram + kBlob;
  const std::vector<size_t> ends = {0, 2, 10, 20, 29};
  for (size_t cut = 0; cut <= payload.size(); ++cut) {
    SCOPED_TRACE(cut);
    size_t whole = 0;
    while (whole + 1 < ends.size() && ends[whole + 1] <= cut) ++whole;
    const Split split = SplitAll(payload.substr(0, cut));
    EXPECT_EQ(split.records.size(), whole == 0 ? 0 : whole - 1);
    EXPECT_EQ(split.damage.empty(), cut == ends[whole]);
    EXPECT_EQ(split.damage_offset, ends[whole]);
  }
}

TEST(RecordSplitterTest, NamesDamage) {
  struct Case {
    const char* name;
    std::string tail;
    const char* want;
  };
  const Case kCases[] = {
      {"other field", std::string("\x32\x00", 2), "field 6 of wire type 2 is no record"},
      {"wrong wire type", "\x10\x05", "field 2 of wire type 0 is no record"},
      {"zeros", std::string(4, '\0'), "field 0 of wire type 0 is no record"},
      {"text", "hello", "field 13 of wire type 0 is no record"},
      {"endless tag", std::string(12, '\xff'), "the tag of a record is cut off or too long"},
      {"endless length", "\x12" + std::string(12, '\xff'), "the length of a record is cut off"},
      {"longer than the rest", "\x12\x7f", "a counter of 127 bytes is cut off: 0 bytes are left"},
      {"2^64 - 1 bytes", "\x2a\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01",
       "a blob of 18446744073709551615 bytes is cut off"},
      {"broken inside", "\x12\x02\x0a\x05", "a counter of 2 bytes is not well-formed"},
      {"other version", "\x08\x02", "version 2 of the records is not known"},
      {"version cut off", "\x08", "the version is cut off"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const Split split = SplitAll(kVersion + kCounter + c.tail);
    EXPECT_EQ(split.records.size(), 1u);
    EXPECT_EQ(split.damage_offset, 10u);
    EXPECT_EQ(split.damage.substr(0, std::string(c.want).size()), c.want);
  }
}

}  // namespace
}  // namespace orb::orbctl
