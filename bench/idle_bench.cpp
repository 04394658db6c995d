// Questions: what does a session of 1,024 counters cost while nobody logs, in
// memory, threads and wake-ups?
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

constexpr uint32_t kKpis = 1024;
constexpr char kTasks[] = "/proc/self/task";

// Heap blocks in use, in all arenas, those of their own mapping included.
size_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::set<std::string> Threads() {
  std::set<std::string> out;
  for (const auto& task : std::filesystem::directory_iterator(kTasks)) {
    out.insert(task.path().filename());
  }
  return out;
}

// Times that a thread gave its processor up to wait: each ends with a wake-up.
int64_t Waits(const std::string& thread) {
  std::ifstream status(std::string(kTasks) + "/" + thread + "/status");
  const std::string key = "voluntary_ctxt_switches:";
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key.size(), key) == 0) return std::stoll(line.substr(key.size()));
  }
  return 0;
}

// range(0): seconds to watch.
void BM_IdleSession(benchmark::State& state) {
  KpiMix mix;
  mix.counters = kKpis;
  Session::Options options;
  options.start = false;
  Session session(mix, options);
  const std::string campaign = Campaign(mix);
  const std::set<std::string> threads_before = Threads();
  const size_t heap_before = HeapBytes();
  if (session.Start(campaign) != 0) state.SkipWithError("refused");
  const size_t heap = HeapBytes() - heap_before;
  const std::string self = std::to_string(gettid());
  const auto wakeups = [&] {
    int64_t sum = 0;
    for (const std::string& thread : Threads()) sum += thread == self ? 0 : Waits(thread);
    return sum;
  };
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // The writer goes to sleep.
  int64_t woken = 0;
  for (auto _ : state) {
    const int64_t before = wakeups();
    std::this_thread::sleep_for(std::chrono::seconds(state.range(0)));
    woken += wakeups() - before;
  }
  state.counters["heap_kib"] = static_cast<double>(heap) / 1024;
  state.counters["own_threads"] = static_cast<double>(Threads().size() - threads_before.size());
  state.counters["wakeups"] = static_cast<double>(woken);
}
BENCHMARK(BM_IdleSession)->Arg(1)->Arg(60)->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace orb::bench
