// Clang's thread-safety attributes under their usual names, and a mutex, a
// lock and a condition variable that carry them. Elsewhere they cost nothing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ORB_TSA(x) __attribute__((x))
#else
#define ORB_TSA(x)
#endif

#undef CAPABILITY
#undef SCOPED_CAPABILITY
#undef GUARDED_BY
#undef PT_GUARDED_BY
#undef REQUIRES
#undef EXCLUDES
#undef ACQUIRE
#undef RELEASE
#undef TRY_ACQUIRE
#undef ACQUIRED_BEFORE
#undef ACQUIRED_AFTER
#undef RETURN_CAPABILITY
#undef ASSERT_CAPABILITY
#undef NO_THREAD_SAFETY_ANALYSIS

#define CAPABILITY(x) ORB_TSA(capability(x))
#define SCOPED_CAPABILITY ORB_TSA(scoped_lockable)
#define GUARDED_BY(x) ORB_TSA(guarded_by(x))
#define PT_GUARDED_BY(x) ORB_TSA(pt_guarded_by(x))
#define REQUIRES(...) ORB_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) ORB_TSA(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) ORB_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ORB_TSA(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ORB_TSA(try_acquire_capability(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) ORB_TSA(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ORB_TSA(acquired_after(__VA_ARGS__))
#define RETURN_CAPABILITY(x) ORB_TSA(lock_returned(x))
#define ASSERT_CAPABILITY(x) ORB_TSA(assert_capability(x))
#define NO_THREAD_SAFETY_ANALYSIS ORB_TSA(no_thread_safety_analysis)

namespace orb {

class CondVar;

// Non-recursive.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class CondVar;

  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// The caller holds the mutex; a wait gives it up and has it again on return.
// Write the predicate as a loop around Wait, so that the analysis sees it.
class CondVar {
 public:
  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    cv_.wait(lock);
    lock.release();
  }
  // False when the deadline passed first.
  template <typename Clock, typename Duration>
  bool WaitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
      REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool in_time = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }
  void NotifyOne() { cv_.notify_one(); }
  void NotifyAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace orb
