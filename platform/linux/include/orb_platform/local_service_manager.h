// Services of this process for its own use, without a bus: set it with
// setDefaultServiceManager and the whole stack runs in one process.
//
// checkService hands out proxies, never the service itself, so that callers
// meet what they meet on the bus: parcels, one-way order, limits and death. A
// two-way call runs on the calling thread, a one-way call on a thread of its
// target. Binders inside parcels are passed as they are.
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

  // Takes the name away; proxies that were handed out keep working. False when
  // there was none.
  bool Remove(const std::string& name);
  // As if the service's process had died: takes the name away, its proxies turn
  // dead at once, calls through them end with DEAD_OBJECT (a call under way once
  // its handler returns), and every link is reported on another thread. False
  // when there was none. Does not wait for the reports.
  bool Kill(const std::string& name);

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace orb_platform
