// Threads that are started one per event and joined before their owner ends.
#pragma once

#include <atomic>
#include <functional>
#include <list>

#include "collector/stop_signal.h"
#include "utility/check.h"
#include "utility/thread.h"
#include "utility/thread_annotations.h"

// A group of threads under one stop signal. Once that is raised nothing is
// started any more, so a JoinAll() that follows finds every thread there is.
// Thread-safe; its mutex is a leaf.
class WorkerThreads {
 public:
  // `stop` is borrowed.
  explicit WorkerThreads(const StopSignal& stop) : stop_(stop) {}
  // JoinAll() or AdoptInChild() came before.
  ~WorkerThreads() { ORB_CHECK(!any()); }

  // Runs `work` on a new thread of that name, unless the signal is raised. First joins the
  // threads that have finished, so that their number stays bounded. False, with one error
  // line, when there is no thread or no memory for it; nothing runs then.
  bool Start(const char* name, std::function<void()> work) noexcept ORB_EXCLUDES(mutex_);

  // True when a thread waits to be joined.
  bool any() ORB_EXCLUDES(mutex_);
  // Blocks until all have ended. Hold no lock that a thread may want. Not by one of them.
  void JoinAll() ORB_EXCLUDES(mutex_);
  // Call in the child of a fork(). Forgets the threads, which exist in the parent only.
  // False when one of them was inside; the object must not be used then.
  bool AdoptInChild() ORB_EXCLUDES(mutex_);

 private:
  bool StartWorker(const char* name, std::function<void()> work) ORB_EXCLUDES(mutex_);

  struct Worker {
    orb::Thread thread;
    const char* name = nullptr;
    std::function<void()> work;
    std::atomic<bool> done{false};
  };

  const StopSignal& stop_;
  orb::Mutex mutex_;
  std::list<Worker> workers_ ORB_GUARDED_BY(mutex_);  // A list: threads refer to their elements.
};
