// Threads that run incoming calls, death reports and drops of references.
//
// Each posted task wakes an idle worker, or starts one while fewer than the maximum
// run. A worker that waits for a reply does not count, because the reply may depend on
// another call in, to any depth. Surplus workers end when they are idle.
#pragma once

#include <semaphore.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>

#include "utility/thread_annotations.h"

namespace orb_platform {

// Thread-safe; lives until the process ends.
class WorkerPool {
 public:
  static WorkerPool& Get();

  // Starts the first worker. Started() is false afterwards when there is no thread
  // for it; a later call tries again.
  void Start() ORB_EXCLUDES(mutex_);
  bool Started() const ORB_EXCLUDES(mutex_);
  // Threads besides the first. Aborts when lowered after the start.
  void SetMaxExtra(size_t count) ORB_EXCLUDES(mutex_);
  size_t MaxExtra() const ORB_EXCLUDES(mutex_);
  // The calling thread works until Stop().
  void Join() ORB_EXCLUDES(mutex_);
  // Async-signal-safe.
  void Stop();
  // Stop(), and waits until no task runs; false when one does at the deadline.
  bool StopBy(std::chrono::steady_clock::time_point deadline) ORB_EXCLUDES(mutex_);

  // Runs the task on a worker. When all are busy and the system has no thread for another
  // one, the reader thread runs it; later tasks wait until a worker or the reader is free.
  void Post(std::function<void()> task) ORB_EXCLUDES(mutex_);
  // Call before and after waiting for a reply. No effect outside workers.
  void BeginWait() ORB_EXCLUDES(mutex_);
  void EndWait() ORB_EXCLUDES(mutex_);
  // The reader thread calls this. It starts the worker that the system refused before, or
  // else runs a task itself. True when it must be called again later.
  bool Relieve() ORB_EXCLUDES(mutex_);

 private:
  WorkerPool();
  // False when there is no thread.
  bool Spawn(bool quiet = false) ORB_REQUIRES(mutex_);
  // Starts a worker for a waiting task, or else asks the reader for help.
  void Grow() ORB_REQUIRES(mutex_);
  // Runs the first task, unlocked.
  void RunTask() ORB_REQUIRES(mutex_);
  bool MayGrow() const ORB_REQUIRES(mutex_);
  // The loop of one worker. It returns after Stop(), or when `may_end` and there are too
  // many workers.
  void Work(bool may_end) ORB_EXCLUDES(mutex_);

  mutable orb::Mutex mutex_;
  sem_t wake_;         // A semaphore, because a signal handler may post one.
  orb::CondVar done_;  // Signalled when a task ends after Stop().
  std::deque<std::function<void()>> tasks_ ORB_GUARDED_BY(mutex_);
  size_t idle_ ORB_GUARDED_BY(mutex_) = 0;     // Workers that wait for wake_.
  size_t running_ ORB_GUARDED_BY(mutex_) = 0;  // Tasks.
  bool started_ ORB_GUARDED_BY(mutex_) = false;
  bool starved_ ORB_GUARDED_BY(mutex_) = false;  // The last worker could not be started.
  size_t threads_ ORB_GUARDED_BY(mutex_) = 0;
  size_t replies_ ORB_GUARDED_BY(mutex_) = 0;  // Workers that wait for a reply.
  size_t max_extra_ ORB_GUARDED_BY(mutex_) = 15;
};

}  // namespace orb_platform
