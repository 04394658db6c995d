// The reply of a task to the thread that waits for it.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "proto/control.pb.h"
#include "services/manager/campaign_state.h"
#include "utility/thread_annotations.h"

namespace orb::manager {

// Thread-safe; the first reply counts.
class Answer {
 public:
  void Set(const ControlReply& reply) ORB_EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    if (there_) return;
    there_ = true;
    reply_ = reply;
    changed_.NotifyAll();
  }
  // False when no reply came in time.
  bool Wait(std::chrono::milliseconds timeout, ControlReply* reply) ORB_EXCLUDES(mutex_) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (!there_) {
      if (!changed_.WaitUntil(mutex_, deadline)) break;
    }
    if (there_) *reply = reply_;
    return there_;
  }

 private:
  Mutex mutex_;
  CondVar changed_;
  bool there_ ORB_GUARDED_BY(mutex_) = false;
  ControlReply reply_ ORB_GUARDED_BY(mutex_);
};

// Owned by the task. A task that is dropped destroys it, and that answers as well.
class AnswerTicket {
 public:
  AnswerTicket(std::shared_ptr<Answer> answer, std::string client)
      : answer_(std::move(answer)), client_(std::move(client)) {}
  ~AnswerTicket() { answer_->Set(Reply(ControlReply::FAILED, client_ + " has gone")); }
  AnswerTicket(const AnswerTicket&) = delete;
  AnswerTicket& operator=(const AnswerTicket&) = delete;

  void Give(const ControlReply& reply) { answer_->Set(reply); }

 private:
  const std::shared_ptr<Answer> answer_;
  const std::string client_;
};

}  // namespace orb::manager
