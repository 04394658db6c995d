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
  static IPCThreadState* selfOrNull() { return self(); }

  // Of the process whose call this thread runs, as the bus attests it; this
  // process's own outside a call. -1 when the caller was gone too early to ask.
  pid_t getCallingPid() const;
  uid_t getCallingUid() const;
  bool isServingCall() const;
  // Until restored, calls look as if this process made them.
  int64_t clearCallingIdentity();
  void restoreCallingIdentity(int64_t token);

  int32_t getStrictModePolicy() const { return strict_mode_policy_; }
  void setStrictModePolicy(int32_t policy) { strict_mode_policy_ = policy; }

  // Runs incoming calls on this thread until stopProcess().
  void joinThreadPool(bool isMain = true);
  // Every pool thread finishes its call and returns; incoming calls wait for
  // ever. orb_platform/stop.h has the form for signal handlers.
  void stopProcess(bool immediate = true);
  void flushCommands() {}

 private:
  IPCThreadState() = default;
  ~IPCThreadState() = default;

  int32_t strict_mode_policy_ = 0;
};

}  // namespace android
