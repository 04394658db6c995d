// The table: one line a record, the values in words.
// Tested by tests/reader/record_printer_test.cpp.
#include <fmt/format.h>

#include <string>
#include <tuple>

#include "reader/hex.h"
#include "reader/record_formats.h"
#include "utility/terminal_text.h"

namespace orb::reader {
namespace {

constexpr size_t kBlobBytesShown = 16;

// "-1.2" for -12 tenths.
std::string Seconds(int64_t tenths) {
  const uint64_t size = tenths < 0 ? 0 - static_cast<uint64_t>(tenths) : tenths;
  return fmt::format("{}{}.{}", tenths < 0 ? "-" : "", size / 10, size % 10);
}

// The statistics by name; the value alone where a kind has one only.
template <typename Record>
std::string StatisticsText(const Record& record) {
  std::string out;
  ForEachStatistic(record, [&out](const char* name, auto value) {
    if (!out.empty()) out += ", ";
    if (std::tuple_size_v < decltype(StatisticsOf<Record>::kAll) >> 1) out.append(name) += ' ';
    out += NumberText(value);
  });
  return out.empty() ? "-" : out;
}

// Empty buckets are left out.
std::string HistogramText(const orbtr::Histogram& histogram, const HistogramLayout* layout) {
  std::string out;
  const int buckets = histogram.bucket_counts_size();
  for (int i = 0; i < buckets; ++i) {
    if (histogram.bucket_counts(i) == 0) continue;
    std::string label = fmt::format("[{}]", i);
    if (layout != nullptr) {
      label = layout->labels[static_cast<size_t>(i)];
      if (layout->clamps() && i == buckets - 1) label += " or outside";
    }
    out += fmt::format("{}{}: {}", out.empty() ? "" : ", ", label, histogram.bucket_counts(i));
  }
  return out.empty() ? fmt::format("{} empty buckets", buckets) : out;
}

// "5 bytes: 61 62 63 00 64  abc.d"
std::string BlobText(const std::string& data) {
  if (data.empty()) return "0 bytes";
  const std::string_view shown = std::string_view(data).substr(0, kBlobBytesShown);
  std::string letters;
  for (const char c : shown) letters += c >= ' ' && c <= '~' ? c : '.';
  return fmt::format("{} bytes: {}{}  {}", data.size(), Hex(shown, " "),
                     shown.size() < data.size() ? " ..." : "", letters);
}

class TextPrinter : public RecordPrinter {
 public:
  TextPrinter(std::ostream* out, const CampaignIndex* campaign) : out_(*out), campaign_(campaign) {}

  void BeginSource(const RecordSource& source) override {
    if (!first_) out_ << '\n';
    first_ = false;
    out_ << fmt::format("{}: LicSN {}, campaign {}, upload {}\n", TerminalText(source.file),
                        source.lic_sn, source.campaign_id, source.seqno);
    heading_due_ = true;
  }

  void Print(const PayloadRecord& record) override {
    if (heading_due_) Line("KPI", "KIND", "START s", "END s", "SAMPLES", "VALUE");
    heading_due_ = false;
    const orbtr::MetaData& meta = record.meta();
    std::string value = Value(record);
    const std::string note = NoteFor(record, campaign_);
    if (!note.empty()) value += fmt::format("  ({})", note);
    Line(std::to_string(meta.kpi_id()), NameOf(record.kind), Seconds(meta.ts_start()),
         Seconds(meta.ts_end()), std::to_string(meta.num_samples()), value);
  }

 private:
  void Line(std::string_view kpi, std::string_view kind, std::string_view start,
            std::string_view end, std::string_view samples, std::string_view value) {
    out_ << fmt::format("{:>10}  {:<9}  {:>10}  {:>10}  {:>7}  {}\n", kpi, kind, start, end,
                        samples, value);
  }

  std::string Value(const PayloadRecord& record) const {
    if (record.kind == KpiKind::kHistogram) {
      return HistogramText(record.data.histograms(0), LayoutFor(record, campaign_));
    }
    if (record.kind == KpiKind::kBlob) return BlobText(record.data.blobs(0).data());
    std::string text;
    record.VisitElement(
        [&text](const auto&, const auto& element) { text = StatisticsText(element); });
    return text;
  }

  std::ostream& out_;
  const CampaignIndex* const campaign_;
  bool first_ = true;
  bool heading_due_ = true;
};

}  // namespace

std::unique_ptr<RecordPrinter> MakeTextPrinter(std::ostream* out, const CampaignIndex* campaign) {
  return std::make_unique<TextPrinter>(out, campaign);
}

}  // namespace orb::reader
