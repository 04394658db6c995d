// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/service_manager_gate.h"

#include <android/binder_auto_utils.h>
#include <android/binder_manager.h>
#include <binder/IServiceManager.h>

#include <chrono>

#include "utility/contained.h"
#include "utility/error_text.h"
#include "utility/log.h"
#include "utility/thread.h"

namespace {

// Returns once look-ups of both kinds answer: in a vendor process libbinder and
// libbinder_ndk have a service manager each. The name does not matter.
void Ask() {
  static_cast<void>(::android::defaultServiceManager());
  const ::ndk::SpAIBinder ignored(
      AServiceManager_checkService("vendor.nuv.orbsyshal_aidl.IOrbsyshal/default"));
}

}  // namespace

ServiceManagerGate::ServiceManagerGate() : state_(std::make_shared<State>()) {}

bool ServiceManagerGate::StartAsking(const std::shared_ptr<State>& state) {
  orb::Thread thread;
  const int error = thread.Start("orb_look_up", [state] {
    const bool answered = orb::Contained("registerClient", Ask);
    {
      orb::MutexLock lock(state->mutex);
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

bool ServiceManagerGate::Await(const std::function<bool()>& give_up) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  orb::MutexLock lock(state_->mutex);
  if (!state_->open && !state_->asking) state_->asking = StartAsking(state_);
  while (state_->asking && !state_->open && !give_up()) {
    if (!state_->changed.WaitUntil(state_->mutex, deadline)) break;
  }
  return state_->open;
}

void ServiceManagerGate::Wake() {
  // Under the mutex: a waiter that has just asked `give_up` would miss it.
  orb::MutexLock lock(state_->mutex);
  state_->changed.NotifyAll();
}
