// What the calling thread needs to know of the call that it runs.
#pragma once

#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cstdint>

namespace android {

// One per thread, made on first use.
class IPCThreadState {
 public:
  static IPCThreadState* self();

  // Of the process whose call this thread runs, as the bus attests it; this
  // process's own outside a call. -1 when the caller was gone too early to ask.
  pid_t getCallingPid() const;
  uid_t getCallingUid() const;

  // Runs incoming calls on this thread until orb_platform::StopThreadPool().
  void joinThreadPool(bool isMain = true);
  void flushCommands() {}

 private:
  IPCThreadState() = default;
  ~IPCThreadState() = default;
};

}  // namespace android
