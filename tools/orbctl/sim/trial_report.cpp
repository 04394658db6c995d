// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/trial_report.h"

#include <algorithm>
#include <string_view>

#include "proto/kpi_kinds.h"
#include "reader/record_splitter.h"
#include "reader/upload_files.h"
#include "tools/orbctl/output.h"

namespace orb::orbctl {
namespace {

constexpr uint64_t kUploadBytesMax = uint64_t{256} << 20;

}  // namespace

uint64_t OwnerTally::records() const {
  uint64_t sum = 0;
  for (const auto& [id, stream] : kpis) sum += stream.records;
  return sum;
}

uint64_t OwnerTally::samples() const {
  uint64_t sum = 0;
  for (const auto& [id, stream] : kpis) sum += stream.samples;
  return sum;
}

TrialReport::TrialReport(const LTCCampaignDef& campaign, const TrialInput& input) : input_(input) {
  for (const KPICfg& cfg : campaign.kpi_cfgs()) kpis_[cfg.kpi_id()] = cfg;
  for (const manager::LicKey& key : input.campaign.lic_keys()) {
    owners_[static_cast<uint64_t>(key.lic_sn())];
  }
  for (const LicenseSNKPIMap& map : campaign.lic_sn_kpi_maps()) {
    for (const uint32_t kpi : map.kpi_ids()) owners_of_[kpi].push_back(map.lic_sn());
  }
}

bool TrialReport::Collect(const Trial& trial, const LibraryLog& log, const std::string& spool,
                          const std::vector<reader::PrivateKey>& keys, std::string* error) {
  calls_ = trial.calls();
  queue_max_ = trial.queue_max();
  problems_ = log.Problems();
  if (input_.slots == 0) {
    for (auto& [lic_sn, owner] : owners_) owner.handled = owner.unwritten = 0;
    for (const auto& [lic_sn, records] : log.Records()) {
      std::tie(owners_[lic_sn].handled, owners_[lic_sn].unwritten) = records;
    }
  }
  for (const auto& [lic_sn, book] : trial.books().owners) owners_[lic_sn].losses = book.lost;
  CountAccepted();
  std::vector<std::string> files;
  if (!reader::AddFolder(spool, &files, error)) return false;
  for (const std::string& file : files) {
    std::string content;
    if (!ReadFile(file, kUploadBytesMax, &content, error)) return false;
    const auto* bytes = reinterpret_cast<const uint8_t*>(content.data());
    CountUpload(file, reader::OpenUpload({bytes, content.size()}, keys), content.size());
  }
  return true;
}

// The end of a session closes every window that is open; which one it was at, nobody
// says. Only these statistics multiply sums then.
void TrialReport::AddOverflow(const Trial& trial) {
  Overflow& overflow = overflow_.emplace();
  overflow.item = trial.current();
  if (overflow.item != nullptr) {
    overflow.kpis = {overflow.item->kpi};
    overflow.sample = calls_[overflow.item->kpi].logged + 1;
    return;
  }
  for (const auto& [kpi, tally] : calls_) {
    const GaugeConfig& selected = kpis_[kpi].g_cfg();
    if (tally.accepted > 0 && IsGauge(kpi) &&
        (selected.report_stdev() || selected.report_variance() || selected.report_slope() ||
         selected.report_offset())) {
      overflow.kpis.push_back(kpi);
    }
  }
}

void TrialReport::CountUpload(const std::string& path, const reader::Upload& upload,
                              uint64_t bytes) {
  OwnerTally& owner = owners_[upload.header.lic_sn];
  ++owner.uploads;
  owner.bytes += bytes;
  if (upload.status == reader::UploadStatus::kSealed) {
    ++owner.sealed;
    return;
  }
  reader::RecordSplitter splitter(upload.data());
  reader::PayloadRecord record;
  while (splitter.Next(&record)) {
    StreamTally& stream = owner.kpis[record.meta().kpi_id()];
    ++stream.records;
    if (IsGauge(record.meta().kpi_id())) continue;
    record.VisitElement([&stream](const auto& row, const auto& element) {
      stream.samples += row.SamplesIn(element);
    });
  }
  if (upload.status == reader::UploadStatus::kOpened && splitter.damage().empty()) return;
  ++owner.damaged;
  PrintError("warning: " + path + " is damaged; `orbctl decode` says where");
}

// A KPI of no owner goes to all; what is in the load but not in the campaign
// was refused.
void TrialReport::CountAccepted() {
  for (const auto& [kpi, tally] : calls_) {
    const auto cfg = kpis_.find(kpi);
    if (cfg == kpis_.end() || IsGauge(kpi) || cfg->second.type() == KPI_STATE) continue;
    const auto list = owners_of_.find(kpi);
    for (auto& [lic_sn, owner] : owners_) {
      const bool theirs =
          input_.slots > 0 || list == owners_of_.end() ||
          std::find(list->second.begin(), list->second.end(), lic_sn) != list->second.end();
      if (theirs) owner.accepted += tally.accepted;
    }
  }
}

const char* TrialReport::KindName(uint32_t kpi) const {
  const auto found = kpis_.find(kpi);
  const auto kind = found == kpis_.end() ? std::nullopt : KindOf(found->second);
  return kind ? NameOf(*kind) : "unknown";
}

bool TrialReport::IsGauge(uint32_t kpi) const {
  const auto found = kpis_.find(kpi);
  return found != kpis_.end() && KindOf(found->second) == KpiKind::kGauge;
}

CallTally TrialReport::AllCalls() const {
  CallTally all;
  for (const auto& [kpi, tally] : calls_) {
    all.logged += tally.logged;
    all.accepted += tally.accepted;
    all.refused += tally.refused;
  }
  return all;
}

double TrialReport::LoadSeconds() const {
  return static_cast<double>(input_.load.items.back().time.count()) / 1e9;
}

}  // namespace orb::orbctl
