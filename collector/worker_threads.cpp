// Tested by tests/collector/lifecycle_test.cpp.
#include "collector/worker_threads.h"

#include <new>
#include <utility>

void WorkerThreads::Start(std::function<void()> work) noexcept {
  std::list<Worker> finished;
  {
    orb::MutexLock lock(mutex_);
    if (stop_.raised()) return;
    for (auto it = workers_.begin(); it != workers_.end();) {
      const auto next = std::next(it);
      if (it->done) finished.splice(finished.end(), workers_, it);
      it = next;
    }
    Worker& worker = workers_.emplace_back();
    worker.thread = std::thread([&worker, work = std::move(work)] {
      work();
      worker.done = true;
    });
  }
  for (Worker& worker : finished) worker.thread.join();
}

bool WorkerThreads::any() {
  orb::MutexLock lock(mutex_);
  return !workers_.empty();
}

void WorkerThreads::JoinAll() {
  std::list<Worker> workers;
  {
    orb::MutexLock lock(mutex_);
    workers.swap(workers_);
  }
  for (Worker& worker : workers) worker.thread.join();
}

bool WorkerThreads::AdoptInChild() {
  if (!mutex_.IsFree()) return false;
  orb::MutexLock lock(mutex_);
  for (Worker& worker : workers_) new (&worker.thread) std::thread;
  return true;
}
