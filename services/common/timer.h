// One thread that runs tasks when their time has come.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <thread>

#include "utility/thread_annotations.h"

namespace orb::services {

// Thread-safe. The thread starts with the first task. Tasks keep each other waiting, so
// they only hand work to others.
class Timer {
 public:
  static constexpr size_t kMaxTasks = 1U << 16;

  Timer() = default;
  ~Timer() { Stop(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // False when too many wait or it was stopped; the task is then never run.
  bool After(std::chrono::milliseconds delay, std::function<void()> task) ORB_EXCLUDES(mutex_);

  // Drops the tasks that wait, and waits for the running one. Not from a task.
  void Stop() ORB_EXCLUDES(mutex_);

 private:
  void Run() ORB_EXCLUDES(mutex_);

  Mutex mutex_;
  CondVar changed_;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> tasks_
      ORB_GUARDED_BY(mutex_);
  bool stopping_ ORB_GUARDED_BY(mutex_) = false;
  std::thread thread_ ORB_GUARDED_BY(mutex_);
};

}  // namespace orb::services
