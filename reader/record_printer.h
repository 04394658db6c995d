// Prints decoded records: a table to read, CSV for a spreadsheet, or JSON Lines.
//
// Times are of the sender's monotonic clock: seconds in the table, and tenths
// of a second, as recorded, elsewhere. With a campaign, records are compared
// with what it configures, and histogram buckets carry their bounds.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "reader/histogram_layout.h"
#include "reader/record_splitter.h"
#include "reader/upload_reader.h"

namespace orb::reader {

enum class RecordFormat { kText, kJson, kCsv };

// Where records come from; an upload's path and what its header tells.
struct RecordSource {
  std::string file;
  uint64_t campaign_id = 0;
  uint64_t lic_sn = 0;
  uint32_t seqno = 0;
  std::string client = "";  // Empty when the path does not tell.
};

// A campaign by KPI id. A later entry replaces an earlier, as in a session.
class CampaignIndex {
 public:
  explicit CampaignIndex(const LTCCampaignDef& campaign);

  // Null for a KPI that the campaign does not have.
  const KPICfg* Find(uint32_t kpi_id) const;
  // Null unless the KPI is a histogram.
  const HistogramLayout* Layout(uint32_t kpi_id) const;
  // How the record differs from what the campaign configures; mostly empty.
  std::string Note(const PayloadRecord& record) const;

 private:
  std::map<uint32_t, KPICfg> kpis_;
  std::map<uint32_t, HistogramLayout> layouts_;
};

// What was left out of a damaged upload.
struct SalvageReport {
  size_t records = 0;  // That were printed.
  std::vector<Skipped> skipped;
  bool unchecked = false;  // As in Upload.

  uint64_t SkippedBytes(Skipped::Of of) const;
};

class RecordPrinter {
 public:
  // `out` is borrowed, as is the campaign, which may be null.
  static std::unique_ptr<RecordPrinter> Create(RecordFormat format, std::ostream* out,
                                               const CampaignIndex* campaign);
  virtual ~RecordPrinter() = default;

  // The following records come from `source`.
  virtual void BeginSource(const RecordSource& source) = 0;
  virtual void Print(const PayloadRecord& record) = 0;
  // Behind the records of a source that was salvaged; nothing in tables.
  virtual void PrintSalvage(const SalvageReport&) {}
};

}  // namespace orb::reader
