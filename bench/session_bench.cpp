// Question: what does a session start cost beyond parsing and copying?
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

constexpr uint32_t kKpis = 1024;

void BM_FloorSessionStart(benchmark::State& state) {
  KpiMix mix;
  mix.counters = kKpis;
  const std::string campaign = Campaign(mix);
  for (auto _ : state) {
    LTCCampaignDef def;
    if (!def.ParseFromString(campaign)) state.SkipWithError("parse");
    std::vector<KPICfg> copies(def.kpi_cfgs().begin(), def.kpi_cfgs().end());
    benchmark::DoNotOptimize(copies.data());
  }
}
BENCHMARK(BM_FloorSessionStart)->Unit(benchmark::kMicrosecond);

void BM_SessionStart(benchmark::State& state) {
  KpiMix mix;
  mix.counters = kKpis;
  const std::string campaign = Campaign(mix);
  Session::Options options;
  options.start = false;
  // Slots: a start then writes no file, whose cost is the disk's.
  options.slots = true;
  Session session(mix, options);
  for (auto _ : state) {
    if (session.Start(campaign) != 0) state.SkipWithError("refused");
    state.PauseTiming();
    session.get()->StopSession();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_SessionStart)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orb::bench
