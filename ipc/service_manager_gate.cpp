// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/service_manager_gate.h"

#include <chrono>

#include "utility/check.h"
#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/log.h"
#include "utility/thread.h"

ServiceManagerGate::ServiceManagerGate(void (*ask)()) : state_(std::make_shared<State>(ask)) {}

bool ServiceManagerGate::StartAsking(const std::shared_ptr<State>& state) {
  orb::Thread thread;
  const int error = thread.Start("orb_look_up", [state] {
    const bool answered = orb::Contained("registerClient", state->ask);
    {
      orb::MutexLock lock(state->mutex);
      ORB_CHECK(state->asking && !state->open);
      state->open = answered;
      state->asking = answered;  // Else the next attempt asks again.
    }
    state->changed.NotifyAll();
  });
  if (error != 0) {
    LOGE("%s: no thread to look for services: %s", "registerClient", orb::ErrorText(error).c_str());
    return false;
  }
  thread.Detach();
  return true;
}

void ServiceManagerGate::Ask() {
  if (open()) return;
  orb::MutexLock lock(state_->mutex);
  if (!state_->open && !state_->asking) state_->asking = StartAsking(state_);
}

bool ServiceManagerGate::Await(const std::function<bool()>& give_up) {
  if (open()) return true;
  Ask();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  orb::MutexLock lock(state_->mutex);
  while (state_->asking && !state_->open && !give_up()) {
    if (!state_->changed.WaitUntil(state_->mutex, deadline)) break;
  }
  return state_->open;
}

void ServiceManagerGate::Wake() {
  // Under the mutex, so that a waiter between give_up() and its wait does not miss it.
  orb::MutexLock lock(state_->mutex);
  state_->changed.NotifyAll();
}
