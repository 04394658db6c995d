// What a campaign says of each LicSN: how its data is sealed, which KPIs feed it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

// How the data of one LicSN is sealed: for whom, and with which algorithms.
struct ISVKeyStruct {
  std::string encryptionPKey;  // PEM text, as received.
  int pKeyEncAlgo = 0;
  int sKeyEncAlgo = 0;
};

using LicSnKeyTable = std::map<uint64_t, ISVKeyStruct>;

// Which LicSNs the records of a KPI go to. A sorted array in place of a tree of
// lists: a session's start fills it at once, and nothing changes afterwards.
class KpiLicSnTable {
 public:
  void clear() { entries_.clear(); }
  void Add(uint32_t kpi, uint64_t licSN) { entries_.push_back({kpi, licSN}); }
  // To be called once all are added. The LicSNs of a KPI keep their order.
  void Sort() {
    if (!std::is_sorted(entries_.begin(), entries_.end(), Before{})) {
      std::stable_sort(entries_.begin(), entries_.end(), Before{});
    }
  }

  struct Entry {
    uint32_t kpi;
    uint64_t licSN;
  };
  // Empty for a KPI that no LicSN names. Valid until the next change.
  std::span<const Entry> Find(uint32_t kpi) const {
    const auto [first, last] =
        std::equal_range(entries_.begin(), entries_.end(), Entry{kpi, 0}, Before{});
    return {first, last};
  }

 private:
  struct Before {
    bool operator()(const Entry& a, const Entry& b) const { return a.kpi < b.kpi; }
  };

  std::vector<Entry> entries_;
};

using LicSnFlagTable = std::map<uint64_t, bool>;

// What a session has of all this. Made at its start, and const from then on, so that the
// serializer's and the HAL's threads read it without a lock.
struct LicSnTables {
  LicSnKeyTable keys;  // Every LicSN of the campaign.
  KpiLicSnTable kpis;
  LicSnFlagTable encrypt;  // Whether its data is sealed.

  // The LicSNs that get a KPI's records, in that order; 0 alone when there are none.
  std::vector<uint64_t> OwnersOf(uint32_t kpi) const {
    std::vector<uint64_t> owners;
    for (const auto& [id, licSN] : kpis.Find(kpi)) owners.push_back(licSN);
    if (!owners.empty()) return owners;
    for (const auto& [licSN, key] : keys) owners.push_back(licSN);
    if (owners.empty()) owners.push_back(0);
    return owners;
  }
  // The one LicSN of all slots, 0 when there is none.
  uint64_t SlotOwner() const { return keys.empty() ? 0 : keys.begin()->first; }
};
