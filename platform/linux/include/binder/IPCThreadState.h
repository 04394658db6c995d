// What the calling thread can ask about the call that it runs.
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

  // The ids of the process whose call this thread runs, as the bus attests them; outside a
  // call, those of this process. -1 when the caller left the bus before it could be asked.
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
