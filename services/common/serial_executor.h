// One thread that runs tasks in order. Each client has executors of its own for the calls
// to it, so that a client that never answers keeps only itself waiting.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <thread>

#include "utility/thread_annotations.h"

namespace orb::services {

// Thread-safe. The thread starts with the first task.
class SerialExecutor {
 public:
  // At most `max_tasks` wait at a time.
  explicit SerialExecutor(size_t max_tasks) : max_tasks_(max_tasks) {}
  // Stops and joins: blocks while a task runs. Not from a task of its own.
  ~SerialExecutor();
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;

  // False when it is full or stopped; the task is then never run.
  bool Post(std::function<void()> task) ORB_EXCLUDES(mutex_);

  // Drops the tasks that wait and takes no more. The running task goes on.
  void Stop() ORB_EXCLUDES(mutex_);
  // Takes no more tasks; those that wait are still run.
  void Finish() ORB_EXCLUDES(mutex_);
  // Drops the tasks that wait, takes no more, and runs `last` after the running task.
  // Without a task so far it only stops.
  void StopAfter(std::function<void()> last) ORB_EXCLUDES(mutex_);

  // After Stop or Finish: waits until `deadline`; true once no task runs and the thread is
  // joined.
  bool StoppedBy(std::chrono::steady_clock::time_point deadline) ORB_EXCLUDES(mutex_);

 private:
  void Run() ORB_EXCLUDES(mutex_);

  const size_t max_tasks_;
  Mutex mutex_;
  CondVar changed_;
  std::deque<std::function<void()>> tasks_ ORB_GUARDED_BY(mutex_);
  bool stopping_ ORB_GUARDED_BY(mutex_) = false;
  bool finishing_ ORB_GUARDED_BY(mutex_) = false;
  bool running_ ORB_GUARDED_BY(mutex_) = false;
  std::thread thread_ ORB_GUARDED_BY(mutex_);  // Joined by StoppedBy or the destructor.
};

}  // namespace orb::services
