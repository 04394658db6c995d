// Tested by tests/services/serial_executor_test.cpp.
#include "services/common/serial_executor.h"

#include <utility>

#include "utility/check.h"

namespace orb::services {

SerialExecutor::~SerialExecutor() {
  Stop();
  std::thread ended;
  {
    MutexLock lock(mutex_);
    ended.swap(thread_);
  }
  ORB_CHECK(ended.get_id() != std::this_thread::get_id());  // A task of its own.
  if (ended.joinable()) ended.join();
}

bool SerialExecutor::Post(std::function<void()> task) {
  MutexLock lock(mutex_);
  if (stopping_ || finishing_ || tasks_.size() >= max_tasks_) return false;
  tasks_.push_back(std::move(task));
  if (!running_) {
    running_ = true;
    thread_ = std::thread([this] { Run(); });
  }
  changed_.NotifyAll();
  return true;
}

void SerialExecutor::Stop() {
  std::deque<std::function<void()>> dropped;  // Destroyed unlocked: a task may own anything.
  MutexLock lock(mutex_);
  stopping_ = true;
  dropped.swap(tasks_);
  changed_.NotifyAll();
}

void SerialExecutor::Finish() {
  MutexLock lock(mutex_);
  finishing_ = true;
  changed_.NotifyAll();
}

void SerialExecutor::StopAfter(std::function<void()> last) {
  std::deque<std::function<void()>> dropped;  // Destroyed unlocked, as above.
  MutexLock lock(mutex_);
  if (stopping_) return;
  dropped.swap(tasks_);
  stopping_ = !running_;
  finishing_ = true;
  if (running_) tasks_.push_back(std::move(last));
  changed_.NotifyAll();
}

bool SerialExecutor::StoppedBy(std::chrono::steady_clock::time_point deadline) {
  std::thread ended;
  {
    MutexLock lock(mutex_);
    while (running_) {
      if (!changed_.WaitUntil(mutex_, deadline) && running_) return false;
    }
    ended.swap(thread_);
  }
  if (ended.joinable()) ended.join();
  return true;
}

void SerialExecutor::Run() {
  mutex_.Lock();
  while (!stopping_) {
    if (tasks_.empty()) {
      if (finishing_) break;
      changed_.Wait(mutex_);
      continue;
    }
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    mutex_.Unlock();
    task();
    task = nullptr;  // Releases what it owns before the lock is taken again.
    mutex_.Lock();
  }
  running_ = false;
  changed_.NotifyAll();
  mutex_.Unlock();
}

}  // namespace orb::services
