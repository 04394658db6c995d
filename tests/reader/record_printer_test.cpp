#include "reader/record_printer.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

namespace orb::reader {
namespace {

using google::protobuf::TextFormat;

const char kCampaign[] = R"(
  kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER }
  kpi_cfgs { kpi_id: 2 type: KPI_NUMERIC sub_type: GAUGE }
  kpi_cfgs { kpi_id: 3 type: KPI_NUMERIC sub_type: HISTOGRAM
             h_cfg { bucket_bounds: [10, 20, 30] underflow_bucket: true } }
  kpi_cfgs { kpi_id: 4 type: KPI_BLOB }
  kpi_cfgs { kpi_id: 5 type: KPI_STATE })";

// One of each kind, with values at the ends of their ranges.
const char* const kRecords[] = {
    R"(counters { meta { kpi_id: 1 ts_start: 12 ts_end: 20 num_samples: 18446744073709551615 }
                  count: 9007199254740993 })",
    R"(gauges { meta { kpi_id: 2 ts_start: -12 num_samples: 3 }
                min: -2147483648 max: 0 mean: nan stdev: 0.1 variance: inf })",
    R"(histograms { meta { kpi_id: 3 num_samples: 5 } bucket_counts: [1, 0, 4] })",
    R"(blobs { meta { kpi_id: 4 num_samples: 1 } data: "\003\000ab,\"" })",
};

class RecordPrinterTest : public testing::Test {
 protected:
  RecordPrinterTest() {
    LTCCampaignDef campaign;
    EXPECT_TRUE(TextFormat::ParseFromString(kCampaign, &campaign));
    campaign_ = std::make_unique<CampaignIndex>(campaign);
  }

  static PayloadRecord Record(const char* text) {
    orbtr::KPIData data;
    EXPECT_TRUE(TextFormat::ParseFromString(text, &data)) << text;
    PayloadRecord record;
    const std::string bytes = data.SerializeAsString();
    RecordSplitter splitter(bytes);
    EXPECT_TRUE(splitter.Next(&record)) << splitter.damage();
    return record;
  }

  template <typename Records>
  std::string Print(RecordFormat format, bool with_campaign, const Records& records) {
    std::ostringstream out;
    const auto printer =
        RecordPrinter::Create(format, &out, with_campaign ? campaign_.get() : nullptr);
    printer->BeginSource({"a,b.orb", 77, 18446744073709551615u, 3});
    for (const char* record : records) printer->Print(Record(record));
    return out.str();
  }

  std::unique_ptr<CampaignIndex> campaign_;
};

TEST_F(RecordPrinterTest, CsvFieldsFitASpreadsheet) {
  std::ostringstream out;
  const auto printer = RecordPrinter::Create(RecordFormat::kCsv, &out, nullptr);
  printer->BeginSource({"=1+\"x\"\n", 0, 0, 0});
  PayloadRecord record = Record("blobs { }");
  record.data.mutable_blobs(0)->set_data(std::string(20'000, 'a'));
  printer->Print(record);
  const std::string text = out.str();
  const std::string line = text.substr(text.find('\n') + 1);
  EXPECT_EQ(line.substr(0, 22), "\"'=1+\"\"x\"\" \",0,0,0,blo");
  EXPECT_NE(line.find(",20000,6161"), std::string::npos);
  EXPECT_NE(line.find("61,data_hex is cut to 16000 bytes\n"), std::string::npos);
}

// Folders are named by clients.
TEST_F(RecordPrinterTest, FilesDriveNoTerminal) {
  for (const RecordFormat format : {RecordFormat::kText, RecordFormat::kCsv, RecordFormat::kJson}) {
    std::ostringstream out;
    const auto printer = RecordPrinter::Create(format, &out, nullptr);
    printer->BeginSource({"a\x1b\xC2\x9B[2J.orb", 0, 0, 0});
    printer->Print(Record("counters { }"));
    EXPECT_EQ(out.str().find_first_of("\x1b\x9b"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find("[2J.orb"), std::string::npos);
  }
}

TEST_F(RecordPrinterTest, PrintsEveryKindInEveryFormat) {
  std::string json;
  for (const char* line :
       {R"("counter","kpi_id":1,"ts_start":12,"ts_end":20,"num_samples":18446744073709551615,)"
        R"("count":9007199254740993})",
        R"("gauge","kpi_id":2,"ts_start":-12,"ts_end":0,"num_samples":3,"min":-2147483648,)"
        R"("max":0,"mean":"NaN","stdev":0.1,"variance":"Infinity"})",
        R"("histogram","kpi_id":3,"ts_start":0,"ts_end":0,"num_samples":5,"bucket_counts":[1,0,4],)"
        R"("bucket_ranges":["(-inf,10]","(10,20]","(20,30]"],"clamped_bucket":2})",
        R"("blob","kpi_id":4,"ts_start":0,"ts_end":0,"num_samples":1,"data_bytes":6,)"
        R"("data_hex":"030061622c22"})"}) {
    json += R"({"file":"a,b.orb","campaign_id":77,"lic_sn":18446744073709551615,"seqno":3,"kind":)";
    json += line + std::string("\n");
  }
  const std::pair<RecordFormat, std::string> kCases[] = {
      {RecordFormat::kText,
       "a,b.orb: LicSN 18446744073709551615, campaign 77, upload 3\n"
       "       KPI  KIND          START s       END s  SAMPLES  VALUE\n"
       "         1  counter           1.2         2.0  18446744073709551615  9007199254740993\n"
       "         2  gauge            -1.2         0.0        3  min -2147483648, max 0, "
       "mean nan, stdev 0.1, variance inf\n"
       "         3  histogram         0.0         0.0        5  (-inf,10]: 1, "
       "(20,30] or outside: 4\n"
       "         4  blob              0.0         0.0        1  6 bytes: 03 00 61 62 2c 22  "
       "..ab,\"\n"},
      {RecordFormat::kCsv,
       "file,campaign_id,lic_sn,seqno,kind,kpi_id,ts_start,ts_end,num_samples,count,min,max,mean,"
       "stdev,variance,slope,offset,bucket_counts,bucket_ranges,clamped_bucket,data_bytes,data_hex,"
       "note\n"
       "\"a,b.orb\",77,18446744073709551615,3,counter,1,12,20,18446744073709551615,"
       "9007199254740993,,,,,,,,,,,,,\n"
       "\"a,b.orb\",77,18446744073709551615,3,gauge,2,-12,0,3,,-2147483648,0,nan,0.1,inf,,,,,,,,\n"
       "\"a,b.orb\",77,18446744073709551615,3,histogram,3,0,0,5,,,,,,,,,1;0;4,"
       "\"(-inf,10];(10,20];(20,30]\",2,,,\n"
       "\"a,b.orb\",77,18446744073709551615,3,blob,4,0,0,1,,,,,,,,,,,,6,030061622c22,\n"},
      {RecordFormat::kJson, json},
  };
  for (const auto& [format, want] : kCases) EXPECT_EQ(Print(format, true, kRecords), want);
}

TEST_F(RecordPrinterTest, SaysWhereRecordsAndCampaignDiffer) {
  const std::pair<const char*, const char*> kCases[] = {
      {"counters { meta { kpi_id: 1 } }", ""},
      {"counters { }", "not in the campaign"},
      {"gauges { meta { kpi_id: 1 } }", "the campaign has it as a counter"},
      {"counters { meta { kpi_id: 5 } }", "the campaign has it as a KPI that writes no records"},
      {"histograms { meta { kpi_id: 3 } bucket_counts: [1, 2] }",
       "the campaign's layout has 3 buckets"},
  };
  for (const auto& [text, note] : kCases) {
    SCOPED_TRACE(text);
    const char* const record[] = {text};
    const auto with = nlohmann::json::parse(Print(RecordFormat::kJson, true, record));
    EXPECT_EQ(with.value("note", ""), note);
    EXPECT_FALSE(with.contains("bucket_ranges"));
    EXPECT_FALSE(nlohmann::json::parse(Print(RecordFormat::kJson, false, record)).contains("note"));
  }
}

// The buckets as the library fills them.
TEST(HistogramLayoutTest, LabelsBuckets) {
  const struct {
    const char* config;
    const char* labels;  // "<" in front: smaller values are in the first, ">": larger in the last.
  } kCases[] = {
      {"bucket_bounds: [10, 20] underflow_bucket: true overflow_bucket: true",
       "(-inf,10] (10,20] (20,+inf) "},
      {"bucket_bounds: [10, 20, 30]", "<>(10,20] (20,30] "},
      {"bucket_bounds: [-5, 5] overflow_bucket: true", "<(-5,5] (5,+inf) "},
      {"bucket_bounds: [10]", "all values "},
      {"underflow_bucket: true overflow_bucket: true", "all values "},
      {"bucket_bounds: [30, 10, 40] underflow_bucket: true", ">(-inf,30] empty (30,40] "},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.config);
    HistogramConfig config;
    ASSERT_TRUE(TextFormat::ParseFromString(c.config, &config));
    const HistogramLayout layout = LayoutOf(config);
    std::string labels;
    if (layout.clamps_below) labels += '<';
    if (layout.clamps_above) labels += '>';
    for (const std::string& label : layout.labels) labels += label + " ";
    EXPECT_EQ(labels, c.labels);
  }
}

}  // namespace
}  // namespace orb::reader
