// Services and the thread pool of the NDK interface, which are those of libbinder.
// Tested by tests/services/hal_test.cpp.
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "platform/linux/ndk/internal.h"

using android::ProcessState;
using android::sp;
using android::String16;

binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance) {
  if (binder == nullptr || instance == nullptr) return EX_NULL_POINTER;
  const android::status_t exception =
      android::defaultServiceManager()->addService(String16(instance), binder->Binder());
  return orb_platform::PruneException(exception);
}

AIBinder* AServiceManager_checkService(const char* instance) {
  if (instance == nullptr) return nullptr;
  return orb_platform::NewReference(
      orb_platform::HandleOf(android::defaultServiceManager()->checkService(String16(instance))));
}

AIBinder* AServiceManager_getService(const char* instance) {
  if (instance == nullptr) return nullptr;
  return orb_platform::NewReference(
      orb_platform::HandleOf(android::defaultServiceManager()->getService(String16(instance))));
}

// Without a connection there is nothing to serve.
void ABinderProcess_startThreadPool() {
  const sp<ProcessState> process = ProcessState::self();
  if (process == nullptr) return;
  process->startThreadPool();
  process->giveThreadPoolName();
}

bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t threads) {
  const sp<ProcessState> process = ProcessState::self();
  return process != nullptr && process->setThreadPoolMaxThreadCount(threads) == android::OK;
}

void ABinderProcess_joinThreadPool() { android::IPCThreadState::self()->joinThreadPool(); }
