// The records that a session's KPIs fill in turn.
// Tested by tests/kpi/allocation_test.cpp and its neighbours.
#include "proto/kpi_kinds.h"
#include "serializer/kpi_serializer.h"

namespace {

std::vector<std::unique_ptr<orbtr::KPIData>> MakeRecords() {
  std::vector<std::unique_ptr<orbtr::KPIData>> records(orb::kKpiKinds.size());
  orb::ForEachRecordRow([&records](const auto& row) {
    if (row.is_one_sample) return;  // No window makes it.
    auto data = std::make_unique<orbtr::KPIData>();
    (data.get()->*row.add)();
    records[static_cast<size_t>(row.kind)] = std::move(data);
  });
  return records;
}

// To clear all of the record would free its metadata.
template <typename Record>
void ClearButMeta(Record* record) {
  orbtr::MetaData* const meta = record->unsafe_arena_release_meta();
  record->Clear();
  record->unsafe_arena_set_allocated_meta(meta);
}

}  // namespace

KPISerializer::KPISerializer(const char* name) : name(name), records_(MakeRecords()) {}

KPISerializer::~KPISerializer() = default;

orbtr::KPIData& KPISerializer::EmptyRecord(orb::KpiKind kind) {
  orbtr::KPIData& data = *records_[static_cast<size_t>(kind)];
  orb::ForEachRecordRow([&](const auto& row) {
    if (row.kind == kind) ClearButMeta((data.*row.change)(0));
  });
  return data;
}
