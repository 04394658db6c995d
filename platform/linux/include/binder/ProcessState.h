// This process's connection and its pool of threads for incoming calls.
#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cstddef>

namespace android {

// Thread-safe.
class ProcessState : public virtual RefBase {
 public:
  // Connects when needed. Null when there is neither a bus nor a service
  // manager set with setDefaultServiceManager; a later call tries again.
  static sp<ProcessState> self();
  // As self(), but does not connect.
  static sp<ProcessState> selfOrNull();
  // There is one driver; the name is not looked at.
  static sp<ProcessState> initWithDriver(const char* driver);

  // One thread at once, more on demand up to the maximum. Idempotent.
  void startThreadPool();
  // Threads that are started on demand besides the first; 15 unless set. Fatal
  // when lowered after the start.
  status_t setThreadPoolMaxThreadCount(size_t maxThreads);
  size_t getThreadPoolMaxThreadCount() const;
  bool isThreadPoolStarted() const;
  void giveThreadPoolName();

 private:
  ProcessState() = default;
  ~ProcessState() override = default;
};

}  // namespace android
