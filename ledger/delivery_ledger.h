// The books of one client: what became of every record, for each owner (LicSN)
// of its data. A record of a KPI with two owners is in the books of both.
//
//   written -> open (data file, current slot) -> under way (closed file, slot at
//   the HAL) -> sent, or lost by cause
//
// For every owner and at any time: samples = samples that a KPI's window still
// holds + queued + open + under way + sent + lost.
//
// Thread-safe. The one mutex is a leaf: nothing is called with it held.
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

// Some records: their samples and their bytes before compression. Raw buffers
// and files of an earlier process are of unknown content: they count no sample.
struct Tally {
  uint64_t records = 0;
  uint64_t samples = 0;
  uint64_t bytes = 0;

  void Add(const Tally& other);
  void Subtract(const Tally& other);
  bool empty() const { return records == 0; }
};

// What happened `events` times, and to what in all.
struct EventTally {
  uint64_t events = 0;
  Tally tally;

  void Add(const Tally& once);
};

struct OwnerBook {
  uint64_t samples = 0;  // Offered to its KPIs, and what its records count twice.
  Tally open;
  Tally under_way;
  EventTally sent;  // An event is an upload or a slot.
  orb::ByLossCause<EventTally> lost;

  // The sum over all causes.
  EventTally Lost() const;
};

// The books as they are at one moment.
struct Books {
  uint64_t logged = 0;
  uint64_t repeated = 0;
  std::map<uint64_t, OwnerBook> owners;  // By LicSN; 0 also stands for no owner.
  OwnerBook recovered;                   // Files that an earlier process has left.

  // Enters a KPI's samples for each of its owners, but not those still open.
  void Enter(const std::vector<uint64_t>& owners_of_kpi, const orb::KpiSamples& samples);
};

// Without memory for the entry of a new owner or parcel, Written, Lost and Close enter
// nothing and log it: no record and no upload depends on the books.
class DeliveryLedger {
 public:
  // Records are in the owner's open file or slot.
  void Written(uint64_t owner, const Tally& records) ORB_EXCLUDES(mutex_);
  // Records were lost together.
  void Lost(uint64_t owner, orb::LossCause cause, const Tally& records) ORB_EXCLUDES(mutex_);
  // What is open of the owner is under way from now on, under a name of its own:
  // the path of a file, or of a slot. Also when it is nothing.
  void Close(uint64_t owner, const std::string& parcel) ORB_EXCLUDES(mutex_);
  // What is under way has arrived, or is lost; the loss of nothing is none. False
  // for an unknown name.
  bool Settle(const std::string& parcel, std::optional<orb::LossCause> lost) ORB_EXCLUDES(mutex_);
  // The same for a file of an earlier process.
  void SettleRecovered(uint64_t bytes, std::optional<orb::LossCause> lost) ORB_EXCLUDES(mutex_);
  // The KPI's session is over.
  void Enter(const std::vector<uint64_t>& owners, const orb::KpiSamples& samples)
      ORB_EXCLUDES(mutex_);

  Books Copy() const ORB_EXCLUDES(mutex_);

  // In the child of a fork(): false when one of the parent's threads was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  static void Post(OwnerBook* book, const Tally& tally, std::optional<orb::LossCause> lost);

  mutable orb::Mutex mutex_;
  Books books_ ORB_GUARDED_BY(mutex_);
  // What is under way by name, with its owner; also in the owner's book.
  std::map<std::string, std::pair<uint64_t, Tally>> parcels_ ORB_GUARDED_BY(mutex_);
};
