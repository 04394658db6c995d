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
  // Like self(), but does not connect.
  static sp<ProcessState> selfOrNull();
  // Like self(); ignores the name, because there is only one driver.
  static sp<ProcessState> initWithDriver(const char* driver);

  // Starts one thread now, and more on demand up to the maximum. Idempotent.
  void startThreadPool();
  // How many threads are started on demand besides the first; the default is 15. Aborts
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
