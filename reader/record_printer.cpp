// Tested by tests/reader/record_printer_test.cpp.
#include "reader/record_printer.h"

#include <fmt/format.h>

#include <cmath>

#include "reader/record_formats.h"
#include "utility/checked.h"

namespace orb::reader {
CampaignIndex::CampaignIndex(const LTCCampaignDef& campaign) {
  for (const KPICfg& cfg : campaign.kpi_cfgs()) {
    kpis_[cfg.kpi_id()] = cfg;
    layouts_.erase(cfg.kpi_id());
    if (KindOf(cfg) == KpiKind::kHistogram) layouts_[cfg.kpi_id()] = LayoutOf(cfg.h_cfg());
  }
}

const KPICfg* CampaignIndex::Find(uint32_t kpi_id) const {
  const auto found = kpis_.find(kpi_id);
  return found == kpis_.end() ? nullptr : &found->second;
}

const HistogramLayout* CampaignIndex::Layout(uint32_t kpi_id) const {
  const auto found = layouts_.find(kpi_id);
  return found == layouts_.end() ? nullptr : &found->second;
}

std::string CampaignIndex::Note(const PayloadRecord& record) const {
  const uint32_t kpi_id = record.meta().kpi_id();
  const KPICfg* cfg = Find(kpi_id);
  if (cfg == nullptr) return "not in the campaign";
  const std::optional<KpiKind> kind = KindOf(*cfg);
  if (!kind || !WritesRecords(*kind)) {
    return "the campaign has it as a KPI that writes no records";
  }
  if (*kind != record.kind) return fmt::format("the campaign has it as a {}", NameOf(*kind));
  if (record.kind != KpiKind::kHistogram) return "";
  const size_t buckets = Layout(kpi_id)->labels.size();
  if (static_cast<size_t>(record.data.histograms(0).bucket_counts_size()) == buckets) return "";
  return fmt::format("the campaign's layout has {} buckets", buckets);
}

uint64_t SalvageReport::SkippedBytes(Skipped::Of of) const {
  uint64_t bytes = 0;
  for (const Skipped& part : skipped) {
    if (part.of == of) bytes = CheckedAdd<uint64_t>(bytes, part.bytes);
  }
  return bytes;
}

std::unique_ptr<RecordPrinter> RecordPrinter::Create(RecordFormat format, std::ostream* out,
                                                     const CampaignIndex* campaign) {
  switch (format) {
    case RecordFormat::kText:
      return MakeTextPrinter(out, campaign);
    case RecordFormat::kJson:
      return MakeJsonPrinter(out, campaign);
    case RecordFormat::kCsv:
      return MakeCsvPrinter(out, campaign);
  }
  return nullptr;
}

std::string NumberText(float value) {
  return std::isnan(value) ? "nan" : fmt::format("{}", value);  // The sign of a NaN says nothing.
}

const HistogramLayout* LayoutFor(const PayloadRecord& record, const CampaignIndex* campaign) {
  if (campaign == nullptr || record.kind != KpiKind::kHistogram) return nullptr;
  const HistogramLayout* layout = campaign->Layout(record.meta().kpi_id());
  if (layout == nullptr) return nullptr;
  const auto buckets = static_cast<size_t>(record.data.histograms(0).bucket_counts_size());
  return layout->labels.size() == buckets ? layout : nullptr;
}

std::string NoteFor(const PayloadRecord& record, const CampaignIndex* campaign) {
  return campaign == nullptr ? "" : campaign->Note(record);
}

}  // namespace orb::reader
