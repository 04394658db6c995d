// A service manager for services and clients of one process, without a bus. Set it with
// setDefaultServiceManager.
//
// checkService returns proxies and never the service itself, so that callers see what they
// see on the bus: parcels, one-way order, limits and death. A two-way call runs on the
// calling thread, a one-way call on a thread of its target. A binder inside a parcel
// arrives as the same object.
#pragma once

#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>

#include <memory>
#include <string>

namespace orb_platform {

// Thread-safe. Descends from IInterface, so it is held by sp.
class LocalServiceManager : public android::IServiceManager {
 public:
  LocalServiceManager();
  ~LocalServiceManager() override;

  android::sp<android::IBinder> getService(const android::String16& name) const override;
  android::sp<android::IBinder> checkService(const android::String16& name) const override;
  android::status_t addService(const android::String16& name,
                               const android::sp<android::IBinder>& service,
                               bool allowIsolated = false,
                               int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) override;
  android::Vector<android::String16> listServices(
      int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) override;
  android::sp<android::IBinder> waitForService(const android::String16& name) override;
  bool isDeclared(const android::String16& name) override;

  // Removes the name; existing proxies keep working. False when there was no such name.
  bool Remove(const std::string& name);
  // Acts as if the service's process had died: removes its names and makes its proxies
  // dead. Calls through them fail with DEAD_OBJECT, a running call once its handler
  // returns. Every link is reported on another thread, which this does not wait for. False
  // when there was no such name.
  bool Kill(const std::string& name);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace orb_platform
