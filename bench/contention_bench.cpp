// Question: what do two threads pay on one collector, and on two? Floor: the
// same body under one contended std::mutex and std::map.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

constexpr uint32_t kKpis = 100;

// What kiv_log does, in its plainest form.
class PlainCollector {
 public:
  PlainCollector() {
    for (uint32_t id = kFirstCounter; id < kFirstCounter + kKpis; ++id) {
      sums_[id] = std::make_unique<int64_t>(0);
    }
  }
  int Log(uint32_t id, uint32_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = sums_.find(id);
    if (found == sums_.end()) return -1;
    benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    *found->second += value;
    return 0;
  }

 private:
  std::mutex mutex_;
  std::map<uint32_t, std::unique_ptr<int64_t>> sums_;
};

template <typename LogOne>
void Repeat(benchmark::State& state, LogOne log_one) {
  const std::vector<uint32_t> ids = RandomIds(kFirstCounter, kKpis);
  size_t next = static_cast<size_t>(state.thread_index()) * 50;
  for (auto _ : state) {
    if (log_one(ids[next], 1) != 0) state.SkipWithError("refused");
    if (++next == ids.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_FloorContended(benchmark::State& state) {
  static PlainCollector* plain = nullptr;
  if (state.thread_index() == 0) plain = new PlainCollector;
  Repeat(state, [](uint32_t id, uint32_t value) { return plain->Log(id, value); });
  if (state.thread_index() == 0) delete plain;
}
BENCHMARK(BM_FloorContended)->Threads(2)->UseRealTime();

Session* NewSession(bool slots = false) {
  KpiMix mix;
  mix.counters = kKpis;
  Session::Options options;
  options.slots = slots;
  return new Session(mix, options);
}

void BM_LogContended(benchmark::State& state) {
  static Session* session = nullptr;
  if (state.thread_index() == 0) session = NewSession();
  Repeat(state, [](uint32_t id, uint32_t value) { return kiv_log(session->get(), id, value); });
  if (state.thread_index() == 0) delete session;
}
BENCHMARK(BM_LogContended)->Threads(2)->UseRealTime();

void BM_LogOwnCollector(benchmark::State& state) {
  static Session* sessions[2];
  if (state.thread_index() == 0) {
    for (Session*& session : sessions) session = NewSession();
  }
  const int mine = state.thread_index();
  Repeat(state,
         [mine](uint32_t id, uint32_t value) { return kiv_log(sessions[mine]->get(), id, value); });
  if (state.thread_index() == 0) {
    for (Session* session : sessions) delete session;
  }
}
BENCHMARK(BM_LogOwnCollector)->Threads(1)->Threads(2)->UseRealTime();

// Distribution over single calls: two threads, windows of ten samples, so that
// records are written all the time. range(0): milliseconds that each call to
// the HAL takes; range(1): 1 for slots.
void BM_LogDistribution(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  KpiMix mix;
  mix.counters = kKpis;
  mix.sample_window = 10;
  Session::Options options;
  options.slots = state.range(1) != 0;
  Session session(mix, options);
  session.client().DelayCalls(static_cast<int>(state.range(0)));
  std::vector<int64_t> nanos;
  for (auto _ : state) {
    std::vector<int64_t> taken[2];
    const auto body = [&session](std::vector<int64_t>* out) {
      const std::vector<uint32_t> ids = RandomIds(kFirstCounter, kKpis);
      for (int i = 0; i < 50000; ++i) {
        const auto before = Clock::now();
        kiv_log(session.get(), ids[static_cast<size_t>(i) % ids.size()], 1);
        out->push_back((Clock::now() - before).count());
      }
    };
    std::thread other(body, &taken[1]);
    body(&taken[0]);
    other.join();
    for (const auto& part : taken) nanos.insert(nanos.end(), part.begin(), part.end());
  }
  std::sort(nanos.begin(), nanos.end());
  const auto at = [&nanos](double share) {
    return static_cast<double>(nanos[static_cast<size_t>(share * double(nanos.size() - 1))]);
  };
  state.counters["p50_ns"] = at(0.5);
  state.counters["p99_ns"] = at(0.99);
  state.counters["p999_ns"] = at(0.999);
}
BENCHMARK(BM_LogDistribution)
    ->Args({0, 0})
    ->Args({200, 0})
    ->Args({0, 1})
    ->Args({200, 1})
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orb::bench
