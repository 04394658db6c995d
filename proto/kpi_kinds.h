// The kinds of KPI, one row each. docs/hacking.md lists what else a new kind needs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>

#include "proto/kpi_data.pb.h"
#include "proto/ltc_campaign.pb.h"

namespace orb {

enum class KpiKind : uint8_t { kCounter, kGauge, kHistogram, kState, kBlob };

struct KpiKindRow {
  KpiKind kind;
  const char* name;  // What dumps, tables and reports call it.
  // What a campaign says to get it. The sub-type counts with KPI_NUMERIC only.
  KPIType type;
  KPISubType sub_type;
};

inline constexpr std::array kKpiKinds = {
    KpiKindRow{KpiKind::kCounter, "counter", KPI_NUMERIC, COUNTER},
    KpiKindRow{KpiKind::kGauge, "gauge", KPI_NUMERIC, GAUGE},
    KpiKindRow{KpiKind::kHistogram, "histogram", KPI_NUMERIC, HISTOGRAM},
    KpiKindRow{KpiKind::kState, "state", KPI_STATE, ::INVALID},
    KpiKindRow{KpiKind::kBlob, "blob", KPI_BLOB, ::INVALID},
};

constexpr const char* NameOf(KpiKind kind) { return kKpiKinds[static_cast<size_t>(kind)].name; }

// The kind that the type, and for KPI_NUMERIC the sub-type, ask for; nothing for an unknown one.
constexpr std::optional<KpiKind> FindKind(KPIType type, KPISubType sub_type) {
  for (const KpiKindRow& row : kKpiKinds) {
    if (row.type == type && (type != KPI_NUMERIC || row.sub_type == sub_type)) return row.kind;
  }
  return std::nullopt;
}
inline std::optional<KpiKind> KindOf(const KPICfg& cfg) {
  return FindKind(cfg.type(), cfg.sub_type());
}

// True when the table has the enumerators in order, and every type that a campaign can name.
constexpr bool KindsAreComplete() {
  for (size_t i = 0; i < kKpiKinds.size(); ++i) {
    if (kKpiKinds[i].kind != static_cast<KpiKind>(i)) return false;
  }
  for (int sub_type = COUNTER; sub_type < KPISubType_ARRAYSIZE; ++sub_type) {
    if (!FindKind(KPI_NUMERIC, static_cast<KPISubType>(sub_type))) return false;
  }
  return FindKind(KPIType_MAX, ::INVALID) == KpiKind::kBlob;
}
static_assert(KindsAreComplete());

// How orbtr::KPIData holds the records of a kind. A kind without a row writes none.
template <typename Record>
struct RecordRow {
  KpiKind kind;
  uint32_t field;  // The number of the list in KPIData.
  const google::protobuf::RepeatedPtrField<Record>& (orbtr::KPIData::*list)() const;
  Record* (orbtr::KPIData::*add)();
  Record* (orbtr::KPIData::*change)(int index);
  bool is_one_sample;  // Else its metadata counts the samples.

  uint64_t SamplesIn(const Record& record) const {
    return is_one_sample ? 1 : record.meta().num_samples();
  }
};

inline constexpr std::tuple kRecordRows = {
    RecordRow<orbtr::Counter>{KpiKind::kCounter, orbtr::KPIData::kCountersFieldNumber,
                              &orbtr::KPIData::counters, &orbtr::KPIData::add_counters,
                              &orbtr::KPIData::mutable_counters, false},
    RecordRow<orbtr::Gauge>{KpiKind::kGauge, orbtr::KPIData::kGaugesFieldNumber,
                            &orbtr::KPIData::gauges, &orbtr::KPIData::add_gauges,
                            &orbtr::KPIData::mutable_gauges, false},
    RecordRow<orbtr::Histogram>{KpiKind::kHistogram, orbtr::KPIData::kHistogramsFieldNumber,
                                &orbtr::KPIData::histograms, &orbtr::KPIData::add_histograms,
                                &orbtr::KPIData::mutable_histograms, false},
    RecordRow<orbtr::Blob>{KpiKind::kBlob, orbtr::KPIData::kBlobsFieldNumber,
                           &orbtr::KPIData::blobs, &orbtr::KPIData::add_blobs,
                           &orbtr::KPIData::mutable_blobs, true},
};

// Calls visit(row) for each row.
template <typename Visit>
void ForEachRecordRow(Visit visit) {
  std::apply([&visit](const auto&... rows) { (visit(rows), ...); }, kRecordRows);
}

constexpr bool WritesRecords(KpiKind kind) {
  return std::apply([kind](const auto&... rows) { return ((rows.kind == kind) || ...); },
                    kRecordRows);
}
constexpr bool RecordRowsAreComplete() {
  for (const KpiKindRow& row : kKpiKinds) {
    if (!WritesRecords(row.kind) && row.kind != KpiKind::kState) return false;
  }
  return true;
}
static_assert(RecordRowsAreComplete());

}  // namespace orb
