// The books of one client say, for each owner (LicSN) of its data, what became of every
// record. A record of a KPI with two owners is in the books of both.
//
//   written -> open (data file, current slot) -> under way (closed file, slot at
//   the HAL) -> sent, or lost by cause
//
// This holds for every owner at any time: samples = samples that the windows of its KPIs
// still hold + queued + open + under way + sent + lost.
//
// Thread-safe. The mutex is a leaf: no other lock is taken while it is held.
// Tested by tests/collector/dump_test.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ledger/kpi_samples.h"
#include "ledger/loss_cause.h"
#include "utility/thread_annotations.h"

// A number of records, with their samples and their bytes before compression. The content of
// raw buffers, and of files that an earlier process left, is unknown: they count no sample.
struct Tally {
  uint64_t records = 0;
  uint64_t samples = 0;
  uint64_t bytes = 0;

  void Add(const Tally& other);
  void Subtract(const Tally& other);
  bool empty() const { return records == 0; }
};

// How often something happened, and to how many records in all.
struct EventTally {
  uint64_t events = 0;
  Tally tally;

  void Add(const Tally& once);
};

struct OwnerBook {
  uint64_t samples = 0;  // Samples logged, plus samples that two records count.
  Tally open;
  Tally under_way;
  EventTally sent;  // Its events are uploads or slots.
  orb::ByLossCause<EventTally> lost;

  // The sum over all causes.
  EventTally Lost() const;
};

// A copy of the books at one moment.
struct Books {
  uint64_t logged = 0;
  uint64_t repeated = 0;
  std::map<uint64_t, OwnerBook> owners;  // By LicSN; 0 also means that there is no owner.
  OwnerBook recovered;                   // Files that an earlier process left.

  // Adds the samples of a KPI to the book of each owner, without those still open.
  void Enter(const std::vector<uint64_t>& owners_of_kpi, const orb::KpiSamples& samples);
};

// When there is no memory for a new owner or shipment, Written, Lost and Close log that and
// change nothing. No record and no upload depends on the books.
class DeliveryLedger {
 public:
  // The records are now in the owner's open file or slot.
  void Written(uint64_t owner, const Tally& records) ORB_EXCLUDES(mutex_);
  // The records were lost, as one event.
  void Lost(uint64_t owner, orb::LossCause cause, const Tally& records) ORB_EXCLUDES(mutex_);
  // Moves the owner's open records to under_way under a unique name: the path of a file, or
  // the name of a slot. Makes the entry even when there are no open records.
  void Close(uint64_t owner, const std::string& shipment) ORB_EXCLUDES(mutex_);
  // Moves the records under way by that name to sent, or to lost. An empty entry is never
  // counted as lost. False for an unknown name.
  bool Settle(const std::string& shipment, std::optional<orb::LossCause> lost) ORB_EXCLUDES(mutex_);
  // Counts a file of an earlier process as sent or lost.
  void SettleRecovered(uint64_t bytes, std::optional<orb::LossCause> lost) ORB_EXCLUDES(mutex_);
  // Adds the samples of a KPI whose session is over.
  void Enter(const std::vector<uint64_t>& owners, const orb::KpiSamples& samples)
      ORB_EXCLUDES(mutex_);

  Books Copy() const ORB_EXCLUDES(mutex_);

  // In the child of a fork(): false when one of the parent's threads was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  static void Post(OwnerBook* book, const Tally& tally, std::optional<orb::LossCause> lost);

  mutable orb::Mutex mutex_;
  Books books_ ORB_GUARDED_BY(mutex_);
  // Owner and records of each shipment under way. The owner's book counts them as well.
  std::map<std::string, std::pair<uint64_t, Tally>> shipments_ ORB_GUARDED_BY(mutex_);
};
