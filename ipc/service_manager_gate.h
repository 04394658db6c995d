// Tells whether one of the platform's service managers has answered this process.
//
// The platform's first look-up waits for a service manager without end, and
// nothing can interrupt it. So a thread of the gate makes the first one; other
// threads look services up only once the gate is open, when a look-up answers
// at once, and wait for that no longer than they want. The ways to the manager and
// to the HAL have a gate each: neither waits for an answer that the other needs.
//
// Thread-safe. Its mutex is a leaf.
// Tested by tests/ipc/manager_client_test.cpp.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "utility/thread_annotations.h"

class ServiceManagerGate {
 public:
  // `ask` is the first look-up; it returns once look-ups answer.
  explicit ServiceManagerGate(void (*ask)());

  // Starts the thread if none asks. Does not wait.
  void Ask();
  // Never waits. Once true, it stays so.
  bool open() const { return state_->open.load(); }
  // Asks, then waits until the gate is open, for kWaitMs, or until `give_up` is true; the
  // thread that makes it true calls Wake(). Returns open().
  bool Await(const std::function<bool()>& give_up);
  void Wake();

  // One attempt's patience. An answer takes milliseconds unless there is no
  // service manager or the processors are overloaded.
  static constexpr int kWaitMs = 2000;

 private:
  // Shared with the thread, which nothing joins: it ends when the platform's
  // look-up does, perhaps never, and touches nothing else of this library.
  struct State {
    explicit State(void (*first_look_up)()) : ask(first_look_up) {}
    void (*const ask)();
    orb::Mutex mutex;
    orb::CondVar changed;
    bool asking ORB_GUARDED_BY(mutex) = false;
    std::atomic<bool> open{false};  // Set under mutex, so that no waiter misses it.
  };
  static bool StartAsking(const std::shared_ptr<State>& state) ORB_REQUIRES(state->mutex);

  const std::shared_ptr<State> state_;
};
