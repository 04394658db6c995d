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

  // Runs the task on a worker. When all are busy and there is no thread for another one,
  // the reader stands in; a task that comes while it does waits for any of them.
  void Post(std::function<void()> task) ORB_EXCLUDES(mutex_);
  // This thread is about to wait for a reply, and has got it. Nothing unless it
  // is a worker.
  void BeginWait() ORB_EXCLUDES(mutex_);
  void EndWait() ORB_EXCLUDES(mutex_);
  // For the reader: tries again to start the worker that there was no thread for, or
  // runs a task itself. True when it is to be called again in a while.
  bool Relieve() ORB_EXCLUDES(mutex_);

 private:
  WorkerPool();
  // False when there is no thread.
  bool Spawn(bool quiet = false) ORB_REQUIRES(mutex_);
  // One more worker for a task that waits, or the reader's help.
  void Grow() ORB_REQUIRES(mutex_);
  // Runs the first task, unlocked.
  void RunTask() ORB_REQUIRES(mutex_);
  bool MayGrow() const ORB_REQUIRES(mutex_);
  // A worker that `may_end` does so once there are too many.
  void Work(bool may_end) ORB_EXCLUDES(mutex_);

  mutable orb::Mutex mutex_;
  sem_t wake_;         // A semaphore, because a signal handler may post one.
  orb::CondVar done_;  // A task has ended, and the pool is stopped.
  std::deque<std::function<void()>> tasks_ ORB_GUARDED_BY(mutex_);
  size_t idle_ ORB_GUARDED_BY(mutex_) = 0;     // Workers that wait for wake_.
  size_t running_ ORB_GUARDED_BY(mutex_) = 0;  // Tasks.
  bool started_ ORB_GUARDED_BY(mutex_) = false;
  bool starved_ ORB_GUARDED_BY(mutex_) = false;  // No thread for the last one wanted.
  size_t threads_ ORB_GUARDED_BY(mutex_) = 0;
  size_t replies_ ORB_GUARDED_BY(mutex_) = 0;  // Workers that wait for one.
  size_t max_extra_ ORB_GUARDED_BY(mutex_) = 15;
};

}  // namespace orb_platform
