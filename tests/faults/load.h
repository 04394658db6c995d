// What the load client logs, and the counts that it keeps in a shared file, so
// that they outlive it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace orb::test {

enum class LoadKind { kCounter, kHistogram, kGauge, kBlob };

struct LoadKpi {
  uint32_t id;
  LoadKind kind;
  const char* window;  // Its lines of the campaign.
  bool second_owner;   // Goes to kSecondOwner, too, where a campaign may have two.
};

// Windows end by time or by count, so that every pause and every burst closes some.
inline constexpr LoadKpi kLoadKpis[] = {
    {1, LoadKind::kCounter, "sample_window: 500", true},
    {2, LoadKind::kCounter, "time_window: 50", false},
    {3, LoadKind::kHistogram, "time_window: 100", true},
    {4, LoadKind::kHistogram, "sample_window: 700", false},
    {5, LoadKind::kGauge, "sample_window: 200", false},
    {6, LoadKind::kBlob, "", true},
};
inline constexpr size_t kLoadKpiCount = sizeof kLoadKpis / sizeof kLoadKpis[0];
inline constexpr uint64_t kFirstOwner = 42;
inline constexpr uint64_t kSecondOwner = 77;
inline constexpr uint32_t kLoadValueMax = 7;  // Values are 1 to 7.
inline constexpr int kLoadThreads = 8;

// Counted before the call and taken back when it is refused, so that a process
// that dies in between has counted too much, never too little.
struct LoadCount {
  std::atomic<uint64_t> offered;
  std::atomic<uint64_t> refused;
  std::atomic<uint64_t> sum;  // Of the values that were not refused.

  uint64_t accepted() const { return offered - refused; }
};

// Phase 0 has the faults, phase 1 shows that nothing of them is left.
inline constexpr int kLoadPhases = 2;
inline constexpr uint64_t kFirstCampaign = 5;  // Of phase 0; the next one is of phase 1.

// Of one client.
struct LoadCounts {
  LoadCount kpis[kLoadPhases][kLoadKpiCount];
  LoadCount earlier[kLoadKpiCount];  // Of both phases, before the client's last registration.
  std::atomic<uint64_t> lives;       // Processes that have logged.
};

// A process may have two clients, one with files and one with slots.
inline constexpr size_t kLoadClientsMax = 2;

}  // namespace orb::test
