// Clang's thread-safety attributes, and a mutex, a lock and a condition variable
// that carry them. Other compilers see nothing. The names have a prefix because
// some releases of Android define the plain ones in <utils/Mutex.h>.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#if defined(__clang__)
// The order that ORB_ACQUIRED_BEFORE states is checked by this part of the analysis: in
// each function that takes two mutexes of one object.
#pragma clang diagnostic error "-Wthread-safety-beta"
#define ORB_TSA(x) __attribute__((x))
#else
#define ORB_TSA(x)
#endif

#define ORB_CAPABILITY(x) ORB_TSA(capability(x))
#define ORB_SCOPED_CAPABILITY ORB_TSA(scoped_lockable)
#define ORB_GUARDED_BY(x) ORB_TSA(guarded_by(x))
#define ORB_PT_GUARDED_BY(x) ORB_TSA(pt_guarded_by(x))
#define ORB_REQUIRES(...) ORB_TSA(requires_capability(__VA_ARGS__))
#define ORB_EXCLUDES(...) ORB_TSA(locks_excluded(__VA_ARGS__))
#define ORB_ACQUIRE(...) ORB_TSA(acquire_capability(__VA_ARGS__))
#define ORB_RELEASE(...) ORB_TSA(release_capability(__VA_ARGS__))
#define ORB_TRY_ACQUIRE(...) ORB_TSA(try_acquire_capability(__VA_ARGS__))
#define ORB_ACQUIRED_BEFORE(...) ORB_TSA(acquired_before(__VA_ARGS__))
#define ORB_NO_THREAD_SAFETY_ANALYSIS ORB_TSA(no_thread_safety_analysis)

namespace orb {

class CondVar;

// Non-recursive.
class ORB_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ORB_ACQUIRE() { mutex_.lock(); }
  void Unlock() ORB_RELEASE() { mutex_.unlock(); }
  bool TryLock() ORB_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  // For a process with one thread, such as the child of a fork(): true if no thread held
  // the mutex, so that what it guards is consistent.
  bool IsFree() ORB_EXCLUDES(this) {
    const bool free = mutex_.try_lock();
    if (free) mutex_.unlock();
    return free;
  }

 private:
  friend class CondVar;

  std::mutex mutex_;
};

class ORB_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ORB_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() ORB_RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// The caller holds the mutex; a wait releases it and takes it again before it returns.
// Write the predicate as a loop around Wait, so that the analysis sees it.
class CondVar {
 public:
  void Wait(Mutex& mutex) ORB_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // False when the deadline passed first.
  template <typename Clock, typename Duration>
  bool WaitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
      ORB_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool in_time = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }
  void NotifyOne() { cv_.notify_one(); }
  void NotifyAll() { cv_.notify_all(); }
  // Call in the child of a fork(). Makes the object new, because its destruction would
  // wait for waiters that exist in the parent only.
  void ForgetWaiters() { new (&cv_) std::condition_variable; }

 private:
  std::condition_variable cv_;
};

}  // namespace orb
