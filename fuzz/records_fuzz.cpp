// Splits the data of an upload into records, and prints them in all formats.
#include <sstream>

#include "fuzz/fuzz_input.h"
#include "reader/record_printer.h"
#include "reader/record_splitter.h"

using namespace orb::reader;

namespace {

// KPI 1 is a counter, 2 a gauge, 3 a histogram, 4 a blob.
const CampaignIndex& Index() {
  static const CampaignIndex* const index = [] {
    LTCCampaignDef campaign;
    for (const KPISubType type : {COUNTER, GAUGE, HISTOGRAM}) {
      KPICfg* kpi = campaign.add_kpi_cfgs();
      kpi->set_kpi_id(static_cast<uint32_t>(campaign.kpi_cfgs_size()));
      kpi->set_type(KPI_NUMERIC);
      kpi->set_sub_type(type);
    }
    HistogramConfig* layout = campaign.mutable_kpi_cfgs(2)->mutable_h_cfg();
    layout->add_bucket_bounds(10);
    layout->add_bucket_bounds(20);
    layout->set_overflow_bucket(true);
    KPICfg* blob = campaign.add_kpi_cfgs();
    blob->set_kpi_id(4);
    blob->set_type(KPI_BLOB);
    return new CampaignIndex(campaign);
  }();
  return *index;
}

// Records and skipped bytes cover the payload, but for version records.
void CheckSalvage(std::string_view payload) {
  RecordSplitter splitter(payload, RecordSplitter::Trust::kWary);
  PayloadRecord record;
  size_t covered = 0;
  do {
    while (splitter.Next(&record)) covered += record.size_bytes;
    if (!splitter.damage().empty()) covered += splitter.Resync();
    FUZZ_CHECK(covered <= splitter.damage_offset_bytes());
  } while (splitter.damage_offset_bytes() < payload.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  std::ostringstream out;
  std::vector<std::unique_ptr<RecordPrinter>> printers;
  for (const RecordFormat format : {RecordFormat::kText, RecordFormat::kJson, RecordFormat::kCsv}) {
    printers.push_back(RecordPrinter::Create(format, &out, &Index()));
    printers.push_back(RecordPrinter::Create(format, &out, nullptr));
  }
  for (const auto& printer : printers) printer->BeginSource({"upload", 1, 2, 3});
  RecordSplitter splitter(payload);
  PayloadRecord record;
  size_t end = 0;
  while (splitter.Next(&record)) {
    FUZZ_CHECK(record.offset_bytes >= end && record.size_bytes > 0);
    end = record.offset_bytes + record.size_bytes;
    FUZZ_CHECK(end <= size);
    for (const auto& printer : printers) printer->Print(record);
  }
  FUZZ_CHECK(splitter.damage_offset_bytes() <= size);
  FUZZ_CHECK(!splitter.damage().empty() || splitter.damage_offset_bytes() == size);
  CheckSalvage(payload);
  return 0;
}
