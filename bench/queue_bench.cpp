// Question: what does a payload's queue cost: made, filled, drained, destroyed?
// Floor: a fresh memfd, mapped, copied into, mapped again, copied out of.
#include <benchmark/benchmark.h>
#include <fmq/AidlMessageQueue.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace orb::bench {
namespace {

using Queue = android::AidlMessageQueue<int8_t, android::SynchronizedReadWrite>;

void BM_FloorQueue(benchmark::State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  const std::vector<int8_t> in(bytes, 1);
  std::vector<int8_t> out(bytes);
  for (auto _ : state) {
    const int fd = memfd_create("floor", MFD_CLOEXEC);
    if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) state.SkipWithError("memory");
    void* at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    memcpy(at, in.data(), bytes);
    void* again = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    memcpy(out.data(), again, bytes);
    munmap(again, bytes);
    munmap(at, bytes);
    close(fd);
  }
}
BENCHMARK(BM_FloorQueue)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

void BM_Queue(benchmark::State& state) {
  const auto bytes = static_cast<size_t>(state.range(0));
  const std::vector<int8_t> in(bytes, 1);
  std::vector<int8_t> out(bytes);
  for (auto _ : state) {
    Queue writer(bytes);
    Queue reader(writer.dupeDesc());
    if (!writer.write(in.data(), bytes) || !reader.read(out.data(), bytes)) {
      state.SkipWithError("refused");
    }
  }
}
BENCHMARK(BM_Queue)->Arg(64 << 10)->Arg(1 << 20)->Arg(4 << 20);

}  // namespace
}  // namespace orb::bench
