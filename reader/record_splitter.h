// Takes the data of an upload apart into its records.
//
// payload := version? record*       back to back, no lengths or marks between
// version := 08 01                  not with a client's own header
// record  := tag length message     tag 12 counter, 1a gauge, 22 histogram, 2a blob
//
// That is one serialized orbtr.KPIData after another, and read as one stream of
// top-level fields every field 2 to 5 is a record. Clients may append buffers
// of their own, which can be anything: whatever is no such field is damage. The
// records before it are good; nothing marks where the next one after it starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "proto/kpi_kinds.h"

namespace orb::reader {

struct PayloadRecord {
  KpiKind kind = KpiKind::kCounter;
  size_t offset_bytes = 0;  // Of its tag in the payload.
  size_t size_bytes = 0;    // Tag and length included.
  orbtr::KPIData data;      // Holds the one element.

  // Calls visit(row, element) with the row of its kind and the one element.
  template <typename Visit>
  void VisitElement(Visit visit) const {
    ForEachRecordRow([&](const auto& row) {
      if (row.kind == kind) visit(row, (data.*row.list)().Get(0));
    });
  }
  // The metadata of the one element.
  const orbtr::MetaData& meta() const;
};

// Not thread-safe.
class RecordSplitter {
 public:
  enum class Trust {
    kWellFormed,  // Whatever parses is a record.
    // A torn record swallows the start of the next. So one that does not end where the
    // data end or another begins must look as a client writes it and hide no such start.
    kWary,
  };

  // The payload, uncompressed and in the clear, is borrowed.
  explicit RecordSplitter(std::string_view payload, Trust trust = Trust::kWellFormed)
      : payload_(payload), trust_(trust), budget_bytes_(kSearchBudget * payload.size()) {}

  // The next record; false at the end and at damage.
  bool Next(PayloadRecord* record);

  // At damage: moves to the next place where a record stands as a client writes it
  // (known fields in order, metadata first, begun before it ended), or to the end, and
  // forgets the damage. Returns the bytes skipped, 1 or more.
  size_t Resync();

  // After Next() gave false: empty at the end, else what is wrong at damage_offset_bytes().
  const std::string& damage() const { return damage_; }
  size_t damage_offset_bytes() const { return offset_; }
  // Records so far.
  size_t count() const { return count_; }
  // The version that the payload told so far; 0 for none.
  uint64_t version() const { return version_; }

 private:
  bool ReadVarint(size_t* at, uint64_t* value) const;
  bool ReadVersion(size_t at);
  bool ReadRecord(KpiKind kind, size_t at, PayloadRecord* record);
  bool Damage(std::string reason);
  size_t Believable(size_t at);
  bool IsOverlapped(size_t at, size_t end);

  // What a search may parse, in sizes of the payload: hostile data are all false starts.
  static constexpr size_t kSearchBudget = 16;

  const std::string_view payload_;
  const Trust trust_;
  size_t budget_bytes_;
  size_t offset_ = 0;
  size_t count_ = 0;
  uint64_t version_ = 0;
  std::string damage_;
};

}  // namespace orb::reader
