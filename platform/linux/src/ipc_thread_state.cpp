// Tested by tests/platform/contract_test.cpp.
#include <binder/IPCThreadState.h>
#include <orb_platform/stop.h>
#include <unistd.h>

#include "platform/linux/src/bus.h"
#include "platform/linux/src/caller.h"
#include "platform/linux/src/worker_pool.h"

namespace orb_platform {

namespace {

thread_local const Caller* current = nullptr;

}  // namespace

CallerScope::CallerScope(const Caller* caller) : before_(current) { current = caller; }
CallerScope::~CallerScope() { current = before_; }
const Caller* CallerScope::Current() { return current; }

void StopThreadPool() { WorkerPool::Get().Stop(); }

bool StopThreadPoolBy(std::chrono::steady_clock::time_point deadline) {
  return WorkerPool::Get().StopBy(deadline);
}

}  // namespace orb_platform

namespace android {

using orb_platform::Bus;
using orb_platform::Caller;
using orb_platform::CallerScope;

IPCThreadState* IPCThreadState::self() {
  thread_local IPCThreadState state;
  return &state;
}

pid_t IPCThreadState::getCallingPid() const {
  const Caller* caller = CallerScope::Current();
  return caller == nullptr ? getpid() : Bus::Get().CredentialsOf(*caller).pid;
}

uid_t IPCThreadState::getCallingUid() const {
  const Caller* caller = CallerScope::Current();
  return caller == nullptr ? getuid() : Bus::Get().CredentialsOf(*caller).uid;
}

void IPCThreadState::joinThreadPool(bool) { orb_platform::WorkerPool::Get().Join(); }

}  // namespace android
