// CSV: one header line, one line a record, the same columns for every kind.
// Fields hold no line feed, so that line-based tools can read it as well.
// Tested by tests/reader/record_printer_test.cpp.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "reader/record_formats.h"
#include "utility/terminal_text.h"

namespace orb::reader {
namespace {

constexpr char kHeader[] =
    "file,campaign_id,lic_sn,seqno,kind,kpi_id,ts_start,ts_end,num_samples,count,min,max,mean,"
    "stdev,variance,slope,offset,bucket_counts,bucket_ranges,clamped_bucket,data_bytes,data_hex,"
    "note\n";
constexpr size_t kValueColumns = 12;  // "count" to "data_bytes".

// A spreadsheet cell holds 32767 characters.
constexpr size_t kBlobBytesMax = 16000;

// Quoted where a comma, quote or line end would break the line. A leading
// apostrophe keeps spreadsheets from running a file name as a formula.
std::string Field(std::string_view text) {
  const bool formula = !text.empty() && std::string_view("=+-@").find(text[0]) != text.npos;
  std::string out = formula ? "'" : "";
  if (text.find_first_of(",\"\r\n") == text.npos) return out.append(text);
  out.insert(out.begin(), '"');
  for (const char c : text) {
    if (c == '"') out += '"';
    out += c == '\n' || c == '\r' ? ' ' : c;
  }
  out += '"';
  return out;
}

// The value columns, by their index.
enum Column {
  kCount,
  kMin,
  kMax,
  kMean,
  kStdev,
  kVariance,
  kSlope,
  kOffset,
  kCounts,
  kRanges,
  kClamped,
  kDataBytes
};

using Values = std::vector<std::string>;  // [kValueColumns]

void FillGauge(const orbtr::Gauge& gauge, Values* values) {
  if (gauge.has_min()) (*values)[kMin] = std::to_string(gauge.min());
  if (gauge.has_max()) (*values)[kMax] = std::to_string(gauge.max());
  if (gauge.has_mean()) (*values)[kMean] = FloatText(gauge.mean());
  if (gauge.has_stdev()) (*values)[kStdev] = FloatText(gauge.stdev());
  if (gauge.has_variance()) (*values)[kVariance] = FloatText(gauge.variance());
  if (gauge.has_slope()) (*values)[kSlope] = FloatText(gauge.slope());
  if (gauge.has_offset()) (*values)[kOffset] = FloatText(gauge.offset());
}

void FillHistogram(const orbtr::Histogram& histogram, const HistogramLayout* layout,
                   Values* values) {
  (*values)[kCounts] = fmt::format("{}", fmt::join(histogram.bucket_counts(), ";"));
  if (layout == nullptr) return;
  (*values)[kRanges] = fmt::format("\"{}\"", fmt::join(layout->labels, ";"));
  if (layout->clamps()) (*values)[kClamped] = std::to_string(layout->labels.size() - 1);
}

class CsvPrinter : public RecordPrinter {
 public:
  CsvPrinter(std::ostream* out, const CampaignIndex* campaign) : out_(*out), campaign_(campaign) {
    out_ << kHeader;
  }

  void BeginSource(const RecordSource& source) override {
    source_ = fmt::format("{},{},{},{}", Field(TerminalText(source.file, "\r\n")),
                          source.campaign_id, source.lic_sn, source.seqno);
  }

  void Print(const PayloadRecord& record) override {
    const orbtr::MetaData& meta = record.meta();
    Values values(kValueColumns);
    std::string note = NoteFor(record, campaign_);
    std::string hex;
    switch (record.kind) {
      case RecordKind::kCounter:
        values[kCount] = std::to_string(record.data.counters(0).count());
        break;
      case RecordKind::kGauge:
        FillGauge(record.data.gauges(0), &values);
        break;
      case RecordKind::kHistogram:
        FillHistogram(record.data.histograms(0), LayoutFor(record, campaign_), &values);
        break;
      case RecordKind::kBlob: {
        const std::string& data = record.data.blobs(0).data();
        values[kDataBytes] = std::to_string(data.size());
        hex = Hex(std::string_view(data).substr(0, kBlobBytesMax));
        if (data.size() > kBlobBytesMax) {
          note +=
              fmt::format("{}data_hex is cut to {} bytes", note.empty() ? "" : "; ", kBlobBytesMax);
        }
        break;
      }
    }
    out_ << fmt::format("{},{},{},{},{},{},{},{},{}\n", source_, KindName(record.kind),
                        meta.kpi_id(), meta.ts_start(), meta.ts_end(), meta.num_samples(),
                        fmt::join(values, ","), hex, Field(note));
  }

 private:
  std::ostream& out_;
  const CampaignIndex* const campaign_;
  std::string source_ = ",,,";
};

}  // namespace

std::unique_ptr<RecordPrinter> MakeCsvPrinter(std::ostream* out, const CampaignIndex* campaign) {
  return std::make_unique<CsvPrinter>(out, campaign);
}

}  // namespace orb::reader
