// Tested by tests/platform/contract_test.cpp.
#include <binder/ProcessState.h>

#include <atomic>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/service_managers.h"
#include "platform/linux/src/worker_pool.h"

namespace android {

namespace {

std::atomic<ProcessState*> made{nullptr};

}  // namespace

sp<ProcessState> ProcessState::self() {
  if (!orb_platform::HasExplicitServiceManager() && !orb_platform::Bus::Get().Connect()) {
    return nullptr;
  }
  // Never freed: pool threads outlive static destructors.
  static const sp<ProcessState>* const state = new sp<ProcessState>(new ProcessState());
  made.store(state->get());
  return *state;
}

sp<ProcessState> ProcessState::selfOrNull() { return sp<ProcessState>(made.load()); }
sp<ProcessState> ProcessState::initWithDriver(const char*) { return self(); }

void ProcessState::startThreadPool() { orb_platform::WorkerPool::Get().Start(); }

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
  orb_platform::WorkerPool::Get().SetMaxExtra(maxThreads);
  return OK;
}

size_t ProcessState::getThreadPoolMaxThreadCount() const {
  return orb_platform::WorkerPool::Get().MaxExtra() + 1;
}

bool ProcessState::isThreadPoolStarted() const { return orb_platform::WorkerPool::Get().Started(); }
void ProcessState::giveThreadPoolName() {}

}  // namespace android
