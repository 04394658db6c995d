// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/abort_watch.h"

#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

namespace orb::orbctl {
namespace {

sem_t ended;
std::atomic<RunEnd> end{RunEnd::kReturned};
thread_local bool is_worker = false;

static_assert(std::atomic<RunEnd>::is_always_lock_free, "used by a signal handler");

// Calls only what is safe in a signal handler.
void OnAbort(int) {
  (void)signal(SIGABRT, SIG_DFL);
  end.store(is_worker ? RunEnd::kAborted : RunEnd::kAbortedBeside);
  (void)sem_post(&ended);
  for (;;) (void)pause();
}

}  // namespace

RunEnd RunWatched(const std::function<void()>& work) {
  (void)sem_init(&ended, 0, 0);
  (void)signal(SIGABRT, OnAbort);
  std::thread worker([&work] {
    is_worker = true;
    work();
    (void)sem_post(&ended);
  });
  while (sem_wait(&ended) != 0 && errno == EINTR) {
  }
  if (end.load() != RunEnd::kReturned) {
    worker.detach();
    return end.load();
  }
  (void)signal(SIGABRT, SIG_DFL);
  worker.join();
  return RunEnd::kReturned;
}

}  // namespace orb::orbctl
