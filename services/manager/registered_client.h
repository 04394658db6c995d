// One client that is registered now: how to reach it, and what runs on it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "ipc/IKIVCallback.h"
#include "services/common/serial_executor.h"
#include "services/manager/start_watch.h"
#include "utility/thread_annotations.h"

namespace orb::manager {

// What the manager last heard of a client's session.
struct SessionState {
  bool running = false;
  int64_t camp_id = 0;
  int64_t since_ms = 0;     // Since the epoch.
  int32_t last_result = 0;  // The client's answer to its last start.
  bool restart_refused = false;
  uint64_t hal_changes = 0;  // CampaignManager's count before the start.
};

// All calls that change something are made by tasks of calls(), so they
// have one order and a client that hangs keeps nobody else waiting. Session() is for any
// thread; SetSession for tasks only.
class RegisteredClient {
 public:
  static constexpr size_t kMaxWaitingCalls = 64;
  static constexpr size_t kMaxWaitingQuestions = 4;
  // Most former registrations of one name that have not returned from a call; each has a
  // thread.
  static constexpr int kMaxLeft = 8;

  std::string name;
  std::string token;
  uid_t user = 0;
  int32_t id = 0;
  int32_t type = 0;
  int32_t option = 0;
  int64_t since_ms = 0;
  uint64_t lost_buses = 0;  // The count when it registered.
  android::sp<IKIVCallback> callback;
  android::sp<android::IBinder::DeathRecipient> death;  // The proxy holds it weakly.

  SessionState Session() const ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return session_;
  }
  void SetSession(const SessionState& session) ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    session_ = session;
  }
  // A new series of attempts to give the client its campaign back; earlier ones end.
  uint64_t BeginAttempts() { return ++attempts_; }
  bool IsCurrent(uint64_t attempts) const { return attempts_ == attempts; }
  StartWatch& watch() { return watch_; }
  // Runs the calls that change something.
  services::SerialExecutor& calls() { return calls_; }
  // Runs calls that only ask. They do not wait for those that change something, so that
  // a client which hangs in one of these can still be looked into.
  services::SerialExecutor& questions() { return questions_; }
  // Another registration has taken the name, or it was forgotten: what the client does
  // from now on is not kept.
  bool Replaced() const ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return replaced_;
  }
  // Drops the calls that wait, and makes one more after the running one.
  void Replace(std::function<void()> last) ORB_EXCLUDES(mutex_) {
    {
      MutexLock lock(mutex_);
      replaced_ = true;
    }
    calls_.StopAfter(std::move(last));
    questions_.Stop();
  }
  // Drops the calls and questions that wait.
  void StopCalls() {
    calls_.Stop();
    questions_.Stop();
  }
  bool CallsStoppedBy(std::chrono::steady_clock::time_point deadline) {
    return calls_.StoppedBy(deadline) && questions_.StoppedBy(deadline);
  }

 private:
  mutable Mutex mutex_;
  SessionState session_ ORB_GUARDED_BY(mutex_);
  bool replaced_ ORB_GUARDED_BY(mutex_) = false;
  StartWatch watch_;
  std::atomic<uint64_t> attempts_{0};
  services::SerialExecutor calls_{kMaxWaitingCalls};
  services::SerialExecutor questions_{kMaxWaitingQuestions};
};

}  // namespace orb::manager
