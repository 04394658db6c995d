// Finds the KPI of an id in one or two cache lines, where the ordered table
// that owns the KPIs walks a tree. Built once a session, beside that table.
//
// An open-addressed hash table at most half full; ids are spread by a
// multiplicative hash. Guarded by its owner.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

class KPI;

class KpiIndex {
 public:
  KpiIndex() { Clear(); }

  // The KPIs stay the table's; call Clear before they go.
  void Build(const std::map<uint32_t, std::unique_ptr<KPI>>& kpis) {
    Clear();
    while (entries_.size() < 2 * kpis.size()) {
      entries_.resize(2 * entries_.size());
      --shift_;
    }
    for (const auto& [id, kpi] : kpis) {
      uint32_t at = Home(id);
      while (entries_[at].kpi != nullptr) at = Next(at);
      entries_[at] = {id, kpi.get()};
    }
  }

  void Clear() {
    entries_.assign(2, Entry{});
    entries_.shrink_to_fit();
    shift_ = 31;
  }

  // Null for an id that has no KPI.
  KPI* Find(uint32_t id) const {
    for (uint32_t at = Home(id); entries_[at].kpi != nullptr; at = Next(at)) {
      if (entries_[at].id == id) return entries_[at].kpi;
    }
    return nullptr;
  }

 private:
  struct Entry {
    uint32_t id = 0;
    KPI* kpi = nullptr;
  };

  uint32_t Home(uint32_t id) const { return (id * 2654435769u) >> shift_; }
  uint32_t Next(uint32_t at) const {
    return (at + 1) & (static_cast<uint32_t>(entries_.size()) - 1);
  }

  std::vector<Entry> entries_;  // 2^(32 - shift_); at least one of them is free.
  uint32_t shift_;
};
