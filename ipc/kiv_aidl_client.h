// The process's connections to the manager and to the HAL. Every collector registers and
// sends through this class, and it routes the manager's calls back to collectors.
//
// The manager and the HAL may call back while they serve a call of ours, and the callback
// may need this client again: a session that starts uploads left-over files. So no call to
// the manager or the HAL holds a lock that such a callback takes: the connection is copied
// under its mutex, the call runs without it, and its results count only if the connection
// has not died meanwhile. docs/threads_and_locks.md lists the locks.
#pragma once

#include <android/binder_auto_utils.h>
#include <binder/IBinder.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ipc/collector_routes.h"
#include "ipc/service_manager_gate.h"
#include "utility/thread_annotations.h"

class IKIVCallback;
class IKIVManager;
class OrbsyshalFDCallback;
class OrbvDeathRecipient;
class RoutedCollector;
struct native_handle;

namespace aidl::android::hardware::common {
class NativeHandle;
}
namespace aidl::vendor::nuv::orbsyshal_aidl {
class IOrbsyshal;
}

// How the receiver of a slot compresses it. Other values count as COMPRESS_NONE.
enum CompressType : int32_t { COMPRESS_NONE = 0, COMPRESS_TYPE_1 = 1, COMPRESS_TYPE_2 = 2 };

class kivAIDLClient {
 public:
  // The one instance, made on first use and never destroyed. Any thread.
  static std::shared_ptr<kivAIDLClient> getClientInstance();
  kivAIDLClient();

  // Connects when necessary and registers the collector under the token that the manager
  // assigns. 0, or -1; -1 also when the manager died before the collector was routable.
  virtual int registerClient(const std::string& name, uint32_t clientType, uint32_t clientOption,
                             RoutedCollector* collector)
      ORB_EXCLUDES(managerConnect_, managerMutex_);

  // Hands one upload to the HAL. Blocks while another upload of the process is under way
  // and until the HAL has this one. 0, or -1. A length of 0 allows a null buffer.
  virtual int sendData(const std::string& token, const std::string& name, const uint8_t* header,
                       uint32_t headerLen, const uint8_t* data, uint32_t dataLen,
                       const uint8_t* footer, uint32_t footerLen)
      ORB_EXCLUDES(uploadMutex_, halConnect_, halMutex_);

  // 0, or -1; the token is forgotten unless there is no manager connection.
  virtual int deRegisterClient(const std::string& token) ORB_EXCLUDES(managerMutex_);
  virtual ~kivAIDLClient();

  // Announces a region, whose completions go to the collector, registered or not. `fd` is
  // duplicated. 0 and the HAL's token for the region, or non-zero.
  virtual int setupFD(int fd, uint32_t offset, uint32_t length, RoutedCollector* collector,
                      uint32_t* fdToken) ORB_EXCLUDES(halConnect_, halMutex_);

  // Announces one filled piece of a region. The HAL's result; -1 when it could not be
  // asked. Never reconnects. Reads fdToken once it has the connection: the token is reset
  // before there is another HAL, so no other one gets to see it.
  virtual int FdWrite(const std::string& token, const std::atomic<uint32_t>& fdToken,
                      const std::string& name, const std::vector<uint8_t>& header, uint32_t offset,
                      uint32_t size, CompressType compress) ORB_EXCLUDES(halMutex_);

  virtual int UnsetFD(const std::string& token, const std::atomic<uint32_t>& fdToken)
      ORB_EXCLUDES(halMutex_);

  // Removes the collector's routes and waits until no callback uses it. Call before
  // destroying a collector, with no lock held.
  virtual void forgetCollector(RoutedCollector* collector);

  // A copy, with duplicates of the descriptors.
  static ::aidl::android::hardware::common::NativeHandle makeToAidl(const native_handle* handle);

  // Callbacks find their collector here, without the client's mutexes.
  CollectorRoutes& routes() { return routes_; }
  // Registrations open it; until then there is no manager.
  ServiceManagerGate& serviceManager() { return serviceManager_; }

  // The HAL died (registered with it; the cookie is not used).
  static void serviceDied(void* cookie);
  // Forgets the HAL and its regions, and tells their collectors. The next upload or region
  // connects again.
  void processLostOrbsyshalConn() ORB_EXCLUDES(halMutex_);
  // Forgets the manager and all tokens, then tells every collector that had one.
  void processLostManagerConn() ORB_EXCLUDES(managerMutex_);

 private:
  // A connection; calls use a copy. `deaths` counts the notices so far: a call compares it
  // with its copy's to see whether the service has died meanwhile.
  struct Manager {
    ::android::sp<IKIVManager> proxy;  // Null without a connection.
    ::android::sp<IKIVCallback> callback;
    ::android::sp<::android::IBinder> binder;  // Outlives proxy: the link to death needs it.
    bool watched = false;                      // Its death will be reported.
    uint64_t deaths = 0;
  };
  struct Hal {
    std::shared_ptr<::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal> proxy;  // As above.
    std::shared_ptr<OrbsyshalFDCallback> callback;
    bool watched = false;
    uint64_t deaths = 0;
  };
  Manager CurrentManager() ORB_EXCLUDES(managerMutex_);
  Hal CurrentHal() ORB_EXCLUDES(halMutex_);
  // The first look-up of each.
  static void LookUpManager();
  static void LookUpHal();
  // Connects if there is no connection. The copy's proxy is null if that failed.
  Manager EnsureManager() ORB_EXCLUDES(managerConnect_, managerMutex_);
  Hal EnsureHal() ORB_EXCLUDES(halConnect_, halMutex_);
  // Each connects without waiting for a service that is absent: false then.
  bool initOrbVHandle() ORB_REQUIRES(managerConnect_) ORB_EXCLUDES(managerMutex_);
  bool initOrbsyshalHandle() ORB_REQUIRES(halConnect_) ORB_EXCLUDES(halMutex_);
  // Drops a manager whose death nobody reports: the next registration looks for it again.
  void DropUnwatched(const Manager& manager) ORB_EXCLUDES(managerMutex_);

  // The HAL keeps one queue for each process, so uploads go one by one.
  orb::Mutex uploadMutex_ ORB_ACQUIRED_BEFORE(halConnect_);
  // One thread connects at a time, and asks for the notice of the service's death.
  orb::Mutex managerConnect_ ORB_ACQUIRED_BEFORE(managerMutex_);
  orb::Mutex halConnect_ ORB_ACQUIRED_BEFORE(halMutex_);
  // Created once, on the first connection.
  ::android::sp<OrbvDeathRecipient> managerDeath_ ORB_GUARDED_BY(managerConnect_);
  // Belongs to the latest connection; replacing it unlinks the one before.
  ::ndk::ScopedAIBinder_DeathRecipient halDeath_ ORB_GUARDED_BY(halConnect_);

  orb::Mutex managerMutex_;
  Manager manager_ ORB_GUARDED_BY(managerMutex_);
  orb::Mutex halMutex_;
  Hal hal_ ORB_GUARDED_BY(halMutex_);  // Connected by the first upload or region.

  CollectorRoutes routes_;
  // In a vendor process libbinder (manager) and libbinder_ndk (HAL) have one each.
  ServiceManagerGate serviceManager_;
  ServiceManagerGate halServiceManager_;
};
