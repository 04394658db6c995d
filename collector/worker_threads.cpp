// Tested by tests/collector/lifecycle_test.cpp.
#include "collector/worker_threads.h"

#include <cerrno>
#include <new>
#include <utility>

#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/log.h"

bool WorkerThreads::Start(const char* name, std::function<void()> work) noexcept {
  return orb::Contained(name, false, [&] { return StartWorker(name, std::move(work)); });
}

bool WorkerThreads::StartWorker(const char* name, std::function<void()> work) {
  std::list<Worker> finished;
  std::list<Worker> made(1);
  int error = 0;
  {
    orb::MutexLock lock(mutex_);
    if (stop_.raised()) return true;
    for (auto it = workers_.begin(); it != workers_.end();) {
      const auto next = std::next(it);
      if (it->done) finished.splice(finished.end(), workers_, it);
      it = next;
    }
    Worker& worker = made.front();
    worker.work = std::move(work);
    worker.name = name;
    error = worker.thread.Start(name, [&worker] {
      orb::Contained(worker.name, worker.work);
      worker.done = true;
    });
    if (error == 0) workers_.splice(workers_.end(), made);
  }
  for (Worker& worker : finished) worker.thread.Join();
  if (error != 0) LOGE("%s: no thread: %s", name, orb::ErrorText(error).c_str());
  return error == 0;
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
  for (Worker& worker : workers) worker.thread.Join();
}

bool WorkerThreads::AdoptInChild() {
  if (!mutex_.IsFree()) return false;
  orb::MutexLock lock(mutex_);
  for (Worker& worker : workers_) new (&worker.thread) orb::Thread;
  workers_.clear();
  return true;
}
