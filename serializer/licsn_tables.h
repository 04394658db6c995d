// What a campaign says about each LicSN: how its data is sealed, and which KPIs it gets.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

// For whom the data of one LicSN is sealed, and with which algorithms.
struct ISVKeyStruct {
  std::string encryptionPKey;  // PEM text, as received.
  int pKeyEncAlgo = 0;
  int sKeyEncAlgo = 0;
};

using LicSnKeyTable = std::map<uint64_t, ISVKeyStruct>;

// Which LicSNs get the records of a KPI. A sorted array suffices, because the start of a
// session fills it at once and nothing changes it afterwards.
class KpiLicSnTable {
 public:
  void clear() { entries_.clear(); }
  void Add(uint32_t kpi, uint64_t licSN) { entries_.push_back({kpi, licSN}); }
  // Call this after the last Add. The LicSNs of a KPI keep their order.
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

// The tables of a session. They are made at its start and never change, so the threads of the
// serializer and of the HAL read them without a lock.
struct LicSnTables {
  LicSnKeyTable keys;  // Every LicSN of the campaign.
  KpiLicSnTable kpis;
  LicSnFlagTable encrypt;  // Whether its data is sealed.

  // The LicSNs that get the records of a KPI, in that order. Only 0 when there are none.
  std::vector<uint64_t> OwnersOf(uint32_t kpi) const {
    std::vector<uint64_t> owners;
    for (const auto& [id, licSN] : kpis.Find(kpi)) owners.push_back(licSN);
    if (!owners.empty()) return owners;
    for (const auto& [licSN, key] : keys) owners.push_back(licSN);
    if (owners.empty()) owners.push_back(0);
    return owners;
  }
  // The LicSN that owns all slots; 0 when there is none.
  uint64_t SlotOwner() const { return keys.empty() ? 0 : keys.begin()->first; }
};
