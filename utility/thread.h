// A thread of the library's own. Unlike std::thread it answers when the system
// has none left, instead of throwing, and it takes no signal of the host's.
// Tested by tests/integration/exhaustion_test.cpp.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "utility/check.h"

namespace orb {

// Not thread-safe. Join() or Detach() comes before the end and before another Start().
class Thread {
 public:
  Thread() = default;
  ~Thread() { ORB_CHECK(!joinable_); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Runs body() on a new thread; it must not throw. `name` is a literal of at most 15
  // characters. 0, or EAGAIN or ENOMEM: nothing runs then.
  int Start(const char* name, std::function<void()> body) noexcept {
    ORB_CHECK(!joinable_);
    ORB_CHECK(strlen(name) <= kNameCharsMax);
    std::unique_ptr<Task> task(new (std::nothrow) Task{name, std::move(body)});
    if (task == nullptr) return ENOMEM;
    sigset_t before;
    const sigset_t held = HostSignals();
    pthread_sigmask(SIG_SETMASK, &held, &before);
    const int error = pthread_create(&thread_, nullptr, Run, task.get());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) return error;
    static_cast<void>(task.release());  // The thread's now.
    joinable_ = true;
    return 0;
  }

  bool joinable() const { return joinable_; }
  // Not by the thread itself.
  void Join() {
    ORB_CHECK(joinable_);
    const int error = pthread_join(thread_, nullptr);
    ORB_CHECK(error == 0);
    joinable_ = false;
  }
  void Detach() {
    ORB_CHECK(joinable_);
    pthread_detach(thread_);
    joinable_ = false;
  }

 private:
  static constexpr size_t kNameCharsMax = 15;  // The kernel's limit.

  struct Task {
    const char* name;
    std::function<void()> body;
  };

  // All signals but those that a fault of the thread itself raises: a host that reports
  // crashes needs these from every thread.
  static sigset_t HostSignals() {
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
      sigdelset(&set, fault);
    }
    return set;
  }

  static void* Run(void* argument) noexcept {
    const std::unique_ptr<Task> task(static_cast<Task*>(argument));
    pthread_setname_np(pthread_self(), task->name);
    task->body();
    return nullptr;
  }

  pthread_t thread_{};
  bool joinable_ = false;
};

}  // namespace orb
