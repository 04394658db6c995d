// Finds and publishes services by name.
#pragma once

#include <binder/IInterface.h>
#include <utils/String16.h>
#include <utils/Vector.h>

namespace android {

// Thread-safe. A name has 1 to 127 characters of [A-Za-z0-9_-./].
class IServiceManager : public IInterface {
 public:
  static const int DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0;
  static const int DUMP_FLAG_PRIORITY_HIGH = 1 << 1;
  static const int DUMP_FLAG_PRIORITY_NORMAL = 1 << 2;
  static const int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;
  static const int DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                                            DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT;
  static const int DUMP_FLAG_PROTO = 1 << 4;

  // Polls for up to five seconds.
  virtual sp<IBinder> getService(const String16& name) const = 0;
  // Null when there is none; does not wait for one and starts none.
  virtual sp<IBinder> checkService(const String16& name) const = 0;
  // Replaces the service that this process registered under the name. Returns 0
  // or the code of an exception (binder::Status::EX_*).
  virtual status_t addService(const String16& name, const sp<IBinder>& service,
                              bool allowIsolated = false,
                              int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
  virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;
  // Blocks until there is one.
  virtual sp<IBinder> waitForService(const String16& name) = 0;
  // Whether a process serves the name now; Linux has no declarations to look up.
  virtual bool isDeclared(const String16& name) = 0;

 protected:
  IBinder* onAsBinder() override { return nullptr; }
};

// Never null. Uses the bus unless another service manager was set.
sp<IServiceManager> defaultServiceManager();
// Null restores the default, which uses the bus.
void setDefaultServiceManager(const sp<IServiceManager>& sm);

}  // namespace android
