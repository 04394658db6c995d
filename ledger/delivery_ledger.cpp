// Tested by tests/collector/dump_test.cpp.
#include "ledger/delivery_ledger.h"

#include "utility/checked.h"
#include "utility/contained.h"

using orb::CheckedAdd;
using orb::CheckedSub;
using orb::LossCause;

void Tally::Add(const Tally& other) {
  records = CheckedAdd<uint64_t>(records, other.records);
  samples = CheckedAdd<uint64_t>(samples, other.samples);
  bytes = CheckedAdd<uint64_t>(bytes, other.bytes);
}

void Tally::Subtract(const Tally& other) {
  records = CheckedSub<uint64_t>(records, other.records);
  samples = CheckedSub<uint64_t>(samples, other.samples);
  bytes = CheckedSub<uint64_t>(bytes, other.bytes);
}

void EventTally::Add(const Tally& once) {
  events = CheckedAdd<uint64_t>(events, 1);
  tally.Add(once);
}

EventTally OwnerBook::Lost() const {
  EventTally sum;
  lost.ForEach([&](LossCause, const EventTally& part) {
    sum.events = CheckedAdd<uint64_t>(sum.events, part.events);
    sum.tally.Add(part.tally);
  });
  return sum;
}

void Books::Enter(const std::vector<uint64_t>& owners_of_kpi, const orb::KpiSamples& samples) {
  logged = CheckedAdd<uint64_t>(logged, samples.logged);
  repeated = CheckedAdd<uint64_t>(repeated, samples.repeated);
  for (const uint64_t owner : owners_of_kpi) {
    OwnerBook& book = owners[owner];
    book.samples = CheckedAdd<uint64_t>(book.samples, samples.logged);
    book.samples = CheckedAdd<uint64_t>(book.samples, samples.repeated);
    samples.lost.ForEach([&](LossCause cause, uint64_t count) {
      EventTally& lost = book.lost[cause];
      // Every sample is an event: it was lost before it was part of a record.
      lost.events = CheckedAdd<uint64_t>(lost.events, count);
      lost.tally.samples = CheckedAdd<uint64_t>(lost.tally.samples, count);
    });
  }
}

void DeliveryLedger::Written(uint64_t owner, const Tally& records) {
  orb::Contained("DeliveryLedger::Written", [&] {
    orb::MutexLock lock(mutex_);
    books_.owners[owner].open.Add(records);
  });
}

void DeliveryLedger::Lost(uint64_t owner, LossCause cause, const Tally& records) {
  orb::Contained("DeliveryLedger::Lost", [&] {
    orb::MutexLock lock(mutex_);
    books_.owners[owner].lost[cause].Add(records);
  });
}

void DeliveryLedger::Close(uint64_t owner, const std::string& shipment) {
  orb::Contained("DeliveryLedger::Close", [&] {
    orb::MutexLock lock(mutex_);
    OwnerBook& book = books_.owners[owner];
    auto& entry = shipments_[shipment];
    entry.first = owner;
    entry.second.Add(book.open);
    book.under_way.Add(book.open);
    book.open = Tally();
  });
}

bool DeliveryLedger::Settle(const std::string& shipment, std::optional<LossCause> lost) {
  orb::MutexLock lock(mutex_);
  const auto found = shipments_.find(shipment);
  if (found == shipments_.end()) return false;
  const auto [owner, tally] = found->second;
  shipments_.erase(found);
  OwnerBook& book = books_.owners[owner];
  book.under_way.Subtract(tally);
  if (!lost || !tally.empty()) Post(&book, tally, lost);
  return true;
}

void DeliveryLedger::SettleRecovered(uint64_t bytes, std::optional<LossCause> lost) {
  orb::MutexLock lock(mutex_);
  Post(&books_.recovered, {0, 0, bytes}, lost);
}

void DeliveryLedger::Enter(const std::vector<uint64_t>& owners, const orb::KpiSamples& samples) {
  orb::MutexLock lock(mutex_);
  books_.Enter(owners, samples);
}

Books DeliveryLedger::Copy() const {
  orb::MutexLock lock(mutex_);
  return books_;
}

void DeliveryLedger::Post(OwnerBook* book, const Tally& tally, std::optional<LossCause> lost) {
  (lost ? book->lost[*lost] : book->sent).Add(tally);
}
