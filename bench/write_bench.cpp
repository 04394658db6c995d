// Questions: what does a closing window cost its caller; how fast do records
// reach the disk; how fast do they reach a slot?
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "proto/kpi_data.pb.h"
#include "tests/support/bench_session.h"

namespace orb::bench {
namespace {

// --- A window that closes, caller's side. ---
struct Item {
  std::string data;
  uint32_t kpi_id;
};
constexpr int kQueued = 1024;

KpiMix OneCounter() {
  KpiMix mix;
  mix.counters = 1;
  mix.sample_window = 1;
  return mix;
}

// Polls; then there is time for the thread that did it to fall asleep.
template <typename Done>
void AwaitSleep(Done done) {
  constexpr std::chrono::microseconds kPoll(50);
  while (!done()) std::this_thread::sleep_for(kPoll);
  std::this_thread::sleep_for(kPoll);
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Into an upload that does not return, once it has written what is queued.
void SendWriterAway(Session* session) {
  session->client().LetUploadsGo();
  // An empty file is not sent; the second sample closes the window of the first.
  for (int i = 0; i < 2; ++i) kiv_log(session->get(), kFirstCounter, 1);
  AwaitSleep([&] { return session->get()->Pending() == 0; });
  session->client().HoldUploads();
  session->get()->Flush();
  session->client().WaitHeld();
}

// Build and serialize the same record, one allocation, one locked push and notify.
void PushOne(std::mutex* mutex, std::condition_variable* cv,
             std::deque<std::shared_ptr<Item>>* queue) {
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
    std::lock_guard<std::mutex> lock(*mutex);
    queue->push_back(std::move(item));
    if (queue->size() > kQueued) queue->clear();
  }
  cv->notify_one();
}

void BM_FloorCloseWindow(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::shared_ptr<Item>> queue;
  for (auto _ : state) PushOne(&mutex, &cv, &queue);
}
BENCHMARK(BM_FloorCloseWindow);

// Somebody drains outside the timed part here, too: the writer is with the HAL
// while windows close, and then catches up.
void BM_CloseWindow(benchmark::State& state) {
  Session session(OneCounter());
  int queued = kQueued;
  for (auto _ : state) {
    if (++queued > kQueued) {
      state.PauseTiming();
      SendWriterAway(&session);
      queued = 1;
      state.ResumeTiming();
    }
    kiv_log(session.get(), kFirstCounter, 1);
  }
  session.client().LetUploadsGo();
}
BENCHMARK(BM_CloseWindow)->Iterations(8 * kQueued);

// Keeps the calling thread on the first (0) or last (1) of the cores it may use.
class OnCore {
 public:
  explicit OnCore(int64_t which) {
    sched_getaffinity(0, sizeof allowed_, &allowed_);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int core = 0; core < CPU_SETSIZE; ++core) {
      if (!CPU_ISSET(core, &allowed_)) continue;
      CPU_ZERO(&one);
      CPU_SET(core, &one);
      if (which == 0) break;
    }
    sched_setaffinity(0, sizeof one, &one);
  }
  ~OnCore() { sched_setaffinity(0, sizeof allowed_, &allowed_); }
  OnCore(const OnCore&) = delete;
  OnCore& operator=(const OnCore&) = delete;

 private:
  cpu_set_t allowed_;
};

// The same while the writer writes; it has a few records more than it can finish
// in the timed part. One core has the disk's interrupts as well, which the call
// is not to blame for, so the caller stays on each of two cores in turn.
void BM_CloseWindowBesideDisk(benchmark::State& state) {
  constexpr int kAhead = 8;
  Session session(OneCounter());
  const OnCore core(state.range(0));
  int queued = kQueued;
  for (auto _ : state) {
    if (++queued > kQueued) {
      state.PauseTiming();
      AwaitSleep([&] { return session.get()->Pending() == 0; });
      for (queued = 0; queued < kAhead; ++queued) kiv_log(session.get(), kFirstCounter, 1);
      state.ResumeTiming();
    }
    kiv_log(session.get(), kFirstCounter, 1);
  }
}
BENCHMARK(BM_CloseWindowBesideDisk)->DenseRange(0, 1)->Iterations(4 * kQueued);

// The floor's consumer sleeps, and each push wakes it.
void BM_FloorCloseWindowAsleep(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::shared_ptr<Item>> queue;
  bool stop = false;
  std::atomic<bool> idle{false};
  std::thread consumer([&] {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stop) {
      queue.clear();
      idle = true;
      cv.wait(lock);
    }
  });
  for (auto _ : state) {
    AwaitSleep([&] { return idle.exchange(false); });
    const auto start = std::chrono::steady_clock::now();
    PushOne(&mutex, &cv, &queue);
    state.SetIterationTime(SecondsSince(start));
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  cv.notify_one();
  consumer.join();
}
BENCHMARK(BM_FloorCloseWindowAsleep)->Iterations(1000)->UseManualTime();

void BM_CloseWindowAsleep(benchmark::State& state) {
  Session session(OneCounter());
  for (auto _ : state) {
    AwaitSleep([&] { return session.get()->Pending() == 0; });
    const auto start = std::chrono::steady_clock::now();
    kiv_log(session.get(), kFirstCounter, 1);
    state.SetIterationTime(SecondsSince(start));
  }
}
BENCHMARK(BM_CloseWindowAsleep)->Iterations(1000)->UseManualTime();

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

// Until the writer has synchronised the last record; what the session's end does
// with the file is not the disk's.
void BM_RecordsToDisk(benchmark::State& state) {
  constexpr std::chrono::milliseconds kPoll(2);
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
    while (session.get()->Pending() != 0) std::this_thread::sleep_for(kPoll);
    state.PauseTiming();
    session.get()->StopSession();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_RecordsToDisk)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- Records of 4 KiB into a slot, no announce. ---
constexpr uint32_t kSlotRecordBytes = 4096;
constexpr uint32_t kSlotBytes = 64u << 20;
constexpr uint32_t kSlotRecords = kSlotBytes / kSlotRecordBytes;
constexpr uint32_t kBatch = 16;

// The region through a mapping of our own.
class Region {
 public:
  Region(int fd, size_t size)
      : size_(size),
        at_(static_cast<char*>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0))) {}
  ~Region() { munmap(at_, size_); }
  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;
  char* at(size_t offset) { return at_ + offset; }

 private:
  const size_t size_;
  char* const at_;
};

// An iteration writes a batch of records into the first slot and then copies as
// many into the second, which nobody uses: memory is quicker or slower from
// millisecond to millisecond. floor_ns: of one copy; so is the figure of one record.
void BM_SlotWrite(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  KpiMix mix;
  mix.counters = 1;
  Session::Options options;
  options.slots = true;
  options.slot_bytes = kSlotBytes;
  options.slots_count = 2;
  Session session(mix, options);
  Region region(session.client().region(), 2 * size_t{kSlotBytes});
  const std::string record(kSlotRecordBytes, 'x');
  const auto* bytes = reinterpret_cast<const uint8_t*>(record.data());
  // Faults the pages of both slots in and comes back to the first.
  for (uint32_t i = 0; i < 2 * kSlotRecords + 1; ++i) {
    kiv_log_buf(session.get(), bytes, kSlotRecordBytes);
  }
  char* copy = region.at(kSlotBytes);
  Clock::duration copying{};
  for (auto _ : state) {
    const auto start = Clock::now();
    for (uint32_t i = 0; i < kBatch; ++i) kiv_log_buf(session.get(), bytes, kSlotRecordBytes);
    const auto middle = Clock::now();
    for (uint32_t i = 0; i < kBatch; ++i, copy += kSlotRecordBytes) {
      memcpy(copy, bytes, kSlotRecordBytes);
      benchmark::ClobberMemory();
    }
    copying += Clock::now() - middle;
    state.SetIterationTime(std::chrono::duration<double>(middle - start).count() / kBatch);
  }
  state.counters["floor_ns"] =
      static_cast<double>(copying.count()) / kBatch / static_cast<double>(state.iterations());
}
BENCHMARK(BM_SlotWrite)->Iterations(kSlotRecords / kBatch - 1)->UseManualTime();

}  // namespace
}  // namespace orb::bench
