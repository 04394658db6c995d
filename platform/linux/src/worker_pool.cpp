// Tested by tests/platform/contract_test.cpp.
#include "platform/linux/src/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/threads.h"
#define ORB_LOG_TAG "orb_platform"
#include "utility/contained.h"

namespace orb_platform {

namespace {

std::atomic<bool> stopped{false};
// Bounds how many workers an endless recursion between two processes starts.
constexpr size_t kMostWaiting = 512;

thread_local bool is_worker = false;

}  // namespace

WorkerPool& WorkerPool::Get() {
  static WorkerPool* const pool = new WorkerPool();
  return *pool;
}

WorkerPool::WorkerPool() { sem_init(&wake_, 0, 0); }

void WorkerPool::Start() {
  orb::MutexLock lock(mutex_);
  if (!started_) started_ = Spawn();
}

bool WorkerPool::Started() const {
  orb::MutexLock lock(mutex_);
  return started_;
}

void WorkerPool::SetMaxExtra(size_t count) {
  orb::MutexLock lock(mutex_);
  if (started_ && count < max_extra_) abort();
  max_extra_ = count;
}

size_t WorkerPool::MaxExtra() const {
  orb::MutexLock lock(mutex_);
  return max_extra_;
}

bool WorkerPool::Spawn(bool quiet) {
  threads_++;
  const bool spawned = StartThread(
      "binder", [this] { Work(true); }, quiet);
  if (!spawned) threads_--;
  return spawned;
}

void WorkerPool::Grow() {
  if (starved_) return;  // The reader tries again, without an error line for every task.
  starved_ = !Spawn();
  if (starved_) Bus::Get().WakeReader();
}

bool WorkerPool::Relieve() {
  orb::MutexLock lock(mutex_);
  if (!starved_) return false;
  starved_ = !tasks_.empty() && MayGrow() && !Spawn(true);
  if (!starved_) return false;
  // The workers may wait for what a task does, such as a completion that ends a session.
  RunTask();
  starved_ = !tasks_.empty();
  return starved_;
}

void WorkerPool::RunTask() {
  std::function<void()> task = std::move(tasks_.front());
  tasks_.pop_front();
  ++running_;
  mutex_.Unlock();
  // A task throws only without memory. It has answered its caller then, or has none.
  orb::Contained("binder", [&task] {
    task();
    task = nullptr;
  });
  mutex_.Lock();
  --running_;
  if (stopped.load()) done_.NotifyAll();
}

bool WorkerPool::MayGrow() const {
  return started_ && threads_ < max_extra_ + 1 + std::min(replies_, kMostWaiting);
}

void WorkerPool::Join() { Work(false); }

void WorkerPool::Stop() {
  stopped.store(true);
  sem_post(&wake_);
}

bool WorkerPool::StopBy(std::chrono::steady_clock::time_point deadline) {
  Stop();
  orb::MutexLock lock(mutex_);
  while (running_ > 0) {
    if (!done_.WaitUntil(mutex_, deadline)) return running_ == 0;
  }
  return true;
}

void WorkerPool::Post(std::function<void()> task) {
  orb::MutexLock lock(mutex_);
  tasks_.push_back(std::move(task));
  if (idle_ > 0) sem_post(&wake_);
  if (tasks_.size() > idle_ && MayGrow()) Grow();
}

void WorkerPool::BeginWait() {
  if (!is_worker) return;
  orb::MutexLock lock(mutex_);
  ++replies_;
  if (tasks_.size() > idle_ && MayGrow()) Grow();
}

void WorkerPool::EndWait() {
  if (!is_worker) return;
  orb::MutexLock lock(mutex_);
  --replies_;
}

void WorkerPool::Work(bool may_end) {
  is_worker = true;
  mutex_.Lock();
  while (!stopped.load()) {
    if (!tasks_.empty()) {
      RunTask();
    } else if (may_end && threads_ > max_extra_ + 1 + replies_) {
      --threads_;
      break;
    } else {
      ++idle_;
      mutex_.Unlock();
      sem_wait(&wake_);  // A signal may end it early, which the loop allows for.
      mutex_.Lock();
      --idle_;
    }
  }
  mutex_.Unlock();
  sem_post(&wake_);  // Stop() wakes one worker; each wakes the next.
}

}  // namespace orb_platform
