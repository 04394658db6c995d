// Questions: what does a closing window cost its caller; how fast do records
// reach the disk; how fast do they reach a slot?
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "bench/bench_session.h"
#include "proto/kpi_data.pb.h"

namespace orb::bench {
namespace {

// --- A window that closes, caller's side. ---
struct Item {
  std::string data;
  uint32_t kpi_id;
};

// Build and serialize the same record, one allocation, one locked push and
// notify; somebody drains outside the timed part.
void BM_FloorCloseWindow(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::shared_ptr<Item>> queue;
  for (auto _ : state) {
    orbtr::KPIData data;
    orbtr::Counter* counter = data.add_counters();
    counter->mutable_meta()->set_kpi_id(1);
    counter->mutable_meta()->set_ts_start(123456);
    counter->mutable_meta()->set_ts_end(123457);
    counter->mutable_meta()->set_num_samples(1);
    counter->set_count(1);
    auto item = std::make_shared<Item>();
    data.SerializeToString(&item->data);
    item->kpi_id = 1;
    {
      std::lock_guard<std::mutex> lock(mutex);
      queue.push_back(std::move(item));
      if (queue.size() > 1024) queue.clear();
    }
    cv.notify_one();
  }
}
BENCHMARK(BM_FloorCloseWindow);

void BM_CloseWindow(benchmark::State& state) {
  KpiMix mix;
  mix.counters = 1;
  mix.sample_window = 1;
  Session session(mix);
  for (auto _ : state) kiv_log(session.get(), kFirstCounter, 1);
}
BENCHMARK(BM_CloseWindow)->Iterations(20000);

// --- Records of 200 bytes to disk. ---
constexpr uint32_t kRecordBytes = 200;
constexpr int kRecords = 4000;

void BM_FloorDisk(benchmark::State& state) {
  std::string path = std::filesystem::temp_directory_path() / "orb-bench-file-XXXXXX";
  const int fd = mkstemp(path.data());
  FILE* file = fdopen(fd, "w+b");
  const std::string record(kRecordBytes, 'x');
  for (auto _ : state) {
    for (int i = 0; i < kRecords; ++i) {
      fwrite(record.data(), 1, record.size(), file);
      fflush(file);
      fsync(fileno(file));
    }
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
  fclose(file);
  unlink(path.c_str());
}
BENCHMARK(BM_FloorDisk)->UseRealTime()->Unit(benchmark::kMillisecond);

// The session's end drains the queue, so all records are on disk when it returns.
void BM_RecordsToDisk(benchmark::State& state) {
  KpiMix mix;
  mix.counters = 1;
  Session::Options options;
  options.start = false;
  const std::string campaign = Campaign(mix);
  const std::string record(kRecordBytes, 'x');
  Session session(mix, options);
  for (auto _ : state) {
    state.PauseTiming();
    if (session.Start(campaign) != 0) state.SkipWithError("refused");
    state.ResumeTiming();
    for (int i = 0; i < kRecords; ++i) {
      kiv_log_buf(session.get(), reinterpret_cast<const uint8_t*>(record.data()), kRecordBytes);
    }
    session.get()->StopSession();
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_RecordsToDisk)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- Records of 4 KiB into a slot, no announce. ---
constexpr uint32_t kSlotRecordBytes = 4096;
constexpr uint32_t kSlotBytes = 64u << 20;

void BM_FloorMemcpy(benchmark::State& state) {
  void* at = mmap(nullptr, kSlotBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  const std::string record(kSlotRecordBytes, 'x');
  uint32_t offset = 0;
  memset(at, 1, kSlotBytes);
  for (auto _ : state) {
    memcpy(static_cast<char*>(at) + offset, record.data(), record.size());
    benchmark::ClobberMemory();
    offset += kSlotRecordBytes;
    if (offset == kSlotBytes) offset = 0;
  }
  state.SetBytesProcessed(state.iterations() * kSlotRecordBytes);
  munmap(at, kSlotBytes);
}
BENCHMARK(BM_FloorMemcpy)->Iterations(kSlotBytes / kSlotRecordBytes - 1);

void BM_SlotWrite(benchmark::State& state) {
  KpiMix mix;
  mix.counters = 1;
  Session::Options options;
  options.slots = true;
  options.slot_bytes = kSlotBytes;
  options.slots_count = 2;
  Session session(mix, options);
  const std::string record(kSlotRecordBytes, 'x');
  const auto* bytes = reinterpret_cast<const uint8_t*>(record.data());
  // Faults the pages of the first slot in and comes back to it.
  for (uint32_t i = 0; i < 2 * (kSlotBytes / kSlotRecordBytes) + 1; ++i) {
    kiv_log_buf(session.get(), bytes, kSlotRecordBytes);
  }
  for (auto _ : state) kiv_log_buf(session.get(), bytes, kSlotRecordBytes);
  state.SetBytesProcessed(state.iterations() * kSlotRecordBytes);
}
BENCHMARK(BM_SlotWrite)->Iterations(kSlotBytes / kSlotRecordBytes - 2);

}  // namespace
}  // namespace orb::bench
