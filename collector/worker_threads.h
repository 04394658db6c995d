// Threads that are started per event and joined before their owner goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <thread>

#include "utility/thread_annotations.h"

// Raised once, when its owner is about to go. Thread-safe.
class StopSignal {
 public:
  void Raise() EXCLUDES(mutex_);
  bool raised() const { return raised_.load(); }
  // Returns after the seconds, or as soon as the signal is raised.
  void WaitFor(int32_t seconds) EXCLUDES(mutex_);

 private:
  orb::Mutex mutex_;
  orb::CondVar cv_;
  std::atomic<bool> raised_{false};  // Set under mutex_, so that no waiter misses it.
};

// A group of threads under one stop signal. Once that is raised nothing is
// started any more, so a JoinAll() that follows finds every thread there is.
// Thread-safe; its mutex is a leaf.
class WorkerThreads {
 public:
  // `stop` is borrowed.
  explicit WorkerThreads(const StopSignal& stop) : stop_(stop) {}
  // JoinAll() came before.
  ~WorkerThreads() = default;

  // Runs `work` on a new thread, unless the signal is raised. Joins those that
  // have finished: as many threads exist as run, and the last one.
  void Start(std::function<void()> work) noexcept EXCLUDES(mutex_);

  // True when a thread waits to be joined.
  bool any() EXCLUDES(mutex_);
  // Blocks until all have ended. Hold no lock that a thread may want.
  void JoinAll() EXCLUDES(mutex_);

 private:
  struct Worker {
    std::thread thread;
    std::atomic<bool> done{false};
  };

  const StopSignal& stop_;
  orb::Mutex mutex_;
  std::list<Worker> workers_ GUARDED_BY(mutex_);  // A list: threads refer to their elements.
};
