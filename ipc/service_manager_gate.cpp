// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/service_manager_gate.h"

#include <android/binder_auto_utils.h>
#include <android/binder_manager.h>
#include <binder/IServiceManager.h>

#include <chrono>
#include <system_error>
#include <thread>

#include "utility/log.h"

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
  try {
    std::thread([state] {
      Ask();
      {
        orb::MutexLock lock(state->mutex);
        state->open = true;
      }
      state->changed.NotifyAll();
    }).detach();
  } catch (const std::system_error& error) {
    LOGE("%s: no thread to look for services: %s", "registerClient", error.what());
    return false;
  }
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
