// CSV: one header line, one line a record, the same columns for every kind.
// Fields hold no line feed, so that line-based tools can read it as well.
// Tested by tests/reader/record_printer_test.cpp.
#include <fmt/format.h>

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "reader/hex.h"
#include "reader/record_formats.h"
#include "utility/terminal_text.h"

namespace orb::reader {
namespace {

// The value columns: the statistics of all kinds by name, then these.
constexpr const char* kCounts = "bucket_counts";
constexpr const char* kRanges = "bucket_ranges";
constexpr const char* kClamped = "clamped_bucket";
constexpr const char* kDataBytes = "data_bytes";

// By column; those that are missing are empty.
using Values = std::map<std::string_view, std::string>;

template <typename Record>
void AddStatistics(const RecordRow<Record>&, std::vector<std::string_view>* columns) {
  std::apply([columns](const auto&... all) { (columns->push_back(all.name), ...); },
             StatisticsOf<Record>::kAll);
}

std::vector<std::string_view> ValueColumns() {
  std::vector<std::string_view> columns;
  ForEachRecordRow([&columns](const auto& row) { AddStatistics(row, &columns); });
  columns.insert(columns.end(), {kCounts, kRanges, kClamped, kDataBytes});
  return columns;
}

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
    out_ << fmt::format(
        "file,campaign_id,lic_sn,seqno,kind,kpi_id,ts_start,ts_end,num_samples,{},data_hex,note\n",
        fmt::join(columns_, ","));
  }

  void BeginSource(const RecordSource& source) override {
    source_ = fmt::format("{},{},{},{}", Field(TerminalText(source.file, "\r\n")),
                          source.campaign_id, source.lic_sn, source.seqno);
  }

  void Print(const PayloadRecord& record) override {
    const orbtr::MetaData& meta = record.meta();
    Values values;
    std::string note = NoteFor(record, campaign_);
    std::string hex;
    record.VisitElement([&values](const auto&, const auto& element) {
      ForEachStatistic(
          element, [&values](const char* name, auto value) { values[name] = NumberText(value); });
    });
    if (record.kind == KpiKind::kHistogram) {
      FillHistogram(record.data.histograms(0), LayoutFor(record, campaign_), &values);
    }
    if (record.kind == KpiKind::kBlob) {
      const std::string& data = record.data.blobs(0).data();
      values[kDataBytes] = std::to_string(data.size());
      hex = Hex(std::string_view(data).substr(0, kBlobBytesMax));
      if (data.size() > kBlobBytesMax) {
        note +=
            fmt::format("{}data_hex is cut to {} bytes", note.empty() ? "" : "; ", kBlobBytesMax);
      }
    }
    out_ << fmt::format("{},{},{},{},{},{}", source_, NameOf(record.kind), meta.kpi_id(),
                        meta.ts_start(), meta.ts_end(), meta.num_samples());
    for (const std::string_view column : columns_) out_ << ',' << values[column];
    out_ << fmt::format(",{},{}\n", hex, Field(note));
  }

 private:
  std::ostream& out_;
  const CampaignIndex* const campaign_;
  const std::vector<std::string_view> columns_ = ValueColumns();
  std::string source_ = ",,,";
};

}  // namespace

std::unique_ptr<RecordPrinter> MakeCsvPrinter(std::ostream* out, const CampaignIndex* campaign) {
  return std::make_unique<CsvPrinter>(out, campaign);
}

}  // namespace orb::reader
