// Tested by tests/services/campaign_manager_test.cpp.
#include "services/common/timer.h"

#include <utility>

namespace orb::services {

using std::chrono::steady_clock;

bool Timer::After(std::chrono::milliseconds delay, std::function<void()> task) {
  MutexLock lock(mutex_);
  if (stopping_ || tasks_.size() >= kMaxTasks) return false;
  tasks_.emplace(steady_clock::now() + delay, std::move(task));
  if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
  changed_.NotifyAll();
  return true;
}

void Timer::Stop() {
  decltype(tasks_) dropped;  // Destroyed unlocked: a task may own anything.
  std::thread ended;
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    dropped.swap(tasks_);
    ended.swap(thread_);
    changed_.NotifyAll();
  }
  if (ended.joinable()) ended.join();
}

void Timer::Run() {
  mutex_.Lock();
  while (!stopping_) {
    if (tasks_.empty()) {
      changed_.Wait(mutex_);
      continue;
    }
    const auto next = tasks_.begin();
    const steady_clock::time_point due = next->first;  // Stop takes the tasks meanwhile.
    if (steady_clock::now() < due) {
      changed_.WaitUntil(mutex_, due);
      continue;
    }
    std::function<void()> task = std::move(next->second);
    tasks_.erase(next);
    mutex_.Unlock();
    task();
    task = nullptr;  // Releases what it owns before the lock is taken again.
    mutex_.Lock();
  }
  mutex_.Unlock();
}

}  // namespace orb::services
