// Question: what does one kiv_log within a window cost, beside its parts?
#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>

#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

// --- The floor, part by part. ---
void BM_FloorMutex(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}
BENCHMARK(BM_FloorMutex);

void BM_FloorMap(benchmark::State& state) {
  const uint32_t count = static_cast<uint32_t>(state.range(0));
  std::map<uint32_t, std::unique_ptr<int>> map;
  const std::vector<uint32_t> ids = RandomIds(kFirstCounter, count);
  for (uint32_t id : ids) map[id] = std::make_unique<int>(0);
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(ids[next]));
    if (++next == ids.size()) next = 0;
  }
}
BENCHMARK(BM_FloorMap)->Arg(100)->Arg(1024);

struct Base {
  virtual ~Base() = default;
  virtual int Add(unsigned value) = 0;
};
struct Derived : Base {
  int64_t sum = 0;
  int Add(unsigned value) override {
    sum += value;
    return 0;
  }
};

void BM_FloorVirtual(benchmark::State& state) {
  std::unique_ptr<Base> object = std::make_unique<Derived>();
  for (auto _ : state) {
    benchmark::DoNotOptimize(object.get());
    benchmark::DoNotOptimize(object->Add(3));
  }
}
BENCHMARK(BM_FloorVirtual);

void BM_FloorSteadyClock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::chrono::steady_clock::now());
}
BENCHMARK(BM_FloorSteadyClock);

void BM_FloorTime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(time(nullptr));
}
BENCHMARK(BM_FloorTime);

// --- The call. ---
void LogInTurn(benchmark::State& state, kiv_collector* c, const std::vector<uint32_t>& ids) {
  size_t next = 0;
  uint32_t value = 0;
  for (auto _ : state) {
    if (kiv_log(c, ids[next], value++ % 100) != 0) state.SkipWithError("refused");
    if (++next == ids.size()) next = 0;
  }
}

void BM_LogCounter(benchmark::State& state) {
  const uint32_t count = static_cast<uint32_t>(state.range(0));
  KpiMix mix;
  mix.counters = count;
  Session session(mix);
  LogInTurn(state, session.get(), RandomIds(kFirstCounter, count));
}
BENCHMARK(BM_LogCounter)->Arg(100)->Arg(1024);

void BM_LogHistogram(benchmark::State& state) {
  KpiMix mix;
  mix.histograms = 100;
  Session session(mix);
  LogInTurn(state, session.get(), RandomIds(kFirstHistogram, 100));
}
BENCHMARK(BM_LogHistogram);

void BM_LogGauge(benchmark::State& state) {
  KpiMix mix;
  mix.gauges = 100;
  Session session(mix);
  LogInTurn(state, session.get(), RandomIds(kFirstGauge, 100));
}
BENCHMARK(BM_LogGauge);

}  // namespace
}  // namespace orb::bench
