// Question: does a kiv_log within a window allocate or enter the kernel?
// Counted: malloc and its siblings are this program's own, and the calls run
// in a child whose first system call would kill it.
#include <benchmark/benchmark.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <iterator>

#include "tests/support/bench_session.h"

namespace {
std::atomic<uint64_t> g_allocations{0};
}

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

void* malloc(size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(bytes);
}
void* calloc(size_t count, size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, bytes);
}
void* realloc(void* at, size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(at, bytes);
}
}

namespace orb::bench {
namespace {

constexpr int kCalls = 100000;

void LogOften(kiv_collector* c, const std::vector<uint32_t>& ids) {
  for (int i = 0; i < kCalls; ++i) kiv_log(c, ids[static_cast<size_t>(i) % ids.size()], 1);
}

// From here on, any system call but the thread's exit kills the process. (The
// strict mode would also forbid reading the processor's time counter.)
bool ForbidSystemCalls() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
  };
  const sock_fprog program = {static_cast<unsigned short>(std::size(rules)), rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// 0 when the calls needed no system call, 1 when one killed the child.
double SystemCalls(kiv_collector* c, const std::vector<uint32_t>& ids) {
  const pid_t child = fork();
  if (child == 0) {
    if (!ForbidSystemCalls()) _exit(2);
    LogOften(c, ids);
    syscall(SYS_exit, 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

void BM_HotPathCounts(benchmark::State& state) {
  KpiMix mix;
  mix.counters = 100;
  Session session(mix);
  const std::vector<uint32_t> ids = RandomIds(kFirstCounter, mix.counters);
  uint64_t allocations = 0;
  for (auto _ : state) {
    const uint64_t before = g_allocations.load();
    LogOften(session.get(), ids);
    allocations += g_allocations.load() - before;
  }
  state.counters["allocations"] = static_cast<double>(allocations);
  state.counters["system_calls"] = SystemCalls(session.get(), ids);
}
BENCHMARK(BM_HotPathCounts)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orb::bench
