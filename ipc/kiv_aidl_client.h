// The process-wide way to the manager and to the HAL: every collector registers
// and sends through it, and it routes the manager's calls back to collectors.
//
// One mutex serializes registration, de-registration, every HAL call and the
// manager's death: a payload transfer blocks other HAL traffic of the process.
// Callbacks only take the leaf that guards the two maps.
#pragma once

#include <android/binder_auto_utils.h>
#include <binder/IBinder.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ipc/collector_routes.h"
#include "utility/thread_annotations.h"

class IKIVCallback;
class IKIVManager;
class OrbsyshalFDCallback;
class OrbvDeathRecipient;
struct kiv_collector;
struct native_handle;

namespace aidl::android::hardware::common {
class NativeHandle;
}
namespace aidl::vendor::nuv::orbsyshal_aidl {
class IOrbsyshal;
}

// How the receiver of a slot is to compress it; other values count as 0.
enum CompressType : int32_t {
  COMPRESS_NONE = 0,
  COMPRESS_TYPE_1 = 1,
  COMPRESS_TYPE_2 = 2,
};

class kivAIDLClient {
 public:
  // The one instance, made on first use and never destroyed. Any thread.
  static std::shared_ptr<kivAIDLClient> getClientInstance();

  kivAIDLClient();

  // Connects when necessary and registers the collector under the token that
  // the manager assigns. 0, or -1.
  virtual int registerClient(const std::string& name, uint32_t clientType, uint32_t clientOption,
                             kiv_collector* collector) ORB_EXCLUDES(mutex_);

  // Hands one upload to the HAL; blocks until the HAL has it. 0, or -1. The
  // buffers are borrowed; a length of 0 allows a null buffer.
  virtual int sendData(const std::string& token, const std::string& name, const uint8_t* header,
                       uint32_t headerLen, const uint8_t* data, uint32_t dataLen,
                       const uint8_t* footer, uint32_t footerLen) ORB_EXCLUDES(mutex_);

  // 0, or -1; the token is forgotten unless there is no manager connection.
  virtual int deRegisterClient(const std::string& token) ORB_EXCLUDES(mutex_);

  virtual ~kivAIDLClient();

  // Announces a region (the descriptor is duplicated, not taken). 0 and the
  // HAL's token for it, or non-zero.
  virtual int setupFD(int fd, uint32_t offset, uint32_t length, const std::string& token,
                      uint32_t* fdToken) ORB_EXCLUDES(mutex_);

  // Announces one filled piece of a region. The HAL's result; -1 when it could
  // not be asked. Never reconnects.
  virtual int FdWrite(const std::string& token, uint32_t fdToken, const std::string& name,
                      const std::vector<uint8_t>& header, uint32_t offset, uint32_t size,
                      CompressType compress) ORB_EXCLUDES(mutex_);

  virtual int UnsetFD(const std::string& token, uint32_t fdToken) ORB_EXCLUDES(mutex_);

  // Removes the collector from both maps and waits until no callback uses it.
  // Call before destroying a collector, with no lock held.
  virtual void forgetCollector(kiv_collector* collector);

  // A copy with descriptors of its own; the handle keeps its own.
  static ::aidl::android::hardware::common::NativeHandle makeToAidl(const native_handle* handle);

  // Where callbacks find their collector, without the client's mutex.
  CollectorRoutes& routes() { return routes_; }

  // The HAL died (registered with it; the cookie is not used).
  static void serviceDied(void* cookie);
  // Forgets the HAL; the next upload or region connects again.
  void processLostOrbsyshalConn() ORB_EXCLUDES(mutex_);
  // Tells every registered collector, then forgets the manager and all tokens.
  void processLostManagerConn() ORB_EXCLUDES(mutex_);

 private:
  // Each connects without waiting for a service that is absent: false then.
  bool initOrbVHandle() ORB_REQUIRES(mutex_);
  bool initOrbsyshalHandle() ORB_REQUIRES(mutex_);
  // Whether there is a HAL, connecting when there is none.
  bool EnsureHal() ORB_REQUIRES(mutex_);

  orb::Mutex mutex_;
  // True from a connection to the manager until its death.
  bool ipcInitialised_ ORB_GUARDED_BY(mutex_) = false;
  ::android::sp<IKIVManager> manager_ ORB_GUARDED_BY(mutex_);
  ::android::sp<IKIVCallback> callback_ ORB_GUARDED_BY(mutex_);
  // Kept for the death notice: the link lives as long as both do.
  ::android::sp<::android::IBinder> managerBinder_ ORB_GUARDED_BY(mutex_);
  ::android::sp<OrbvDeathRecipient> managerDeath_ ORB_GUARDED_BY(mutex_);
  bool managerWatched_ ORB_GUARDED_BY(mutex_) = false;

  // Null until the first upload or region, and after the HAL's death.
  std::shared_ptr<::aidl::vendor::nuv::orbsyshal_aidl::IOrbsyshal> hal_ ORB_GUARDED_BY(mutex_);
  std::shared_ptr<OrbsyshalFDCallback> fdCallback_ ORB_GUARDED_BY(mutex_);
  ::ndk::ScopedAIBinder_DeathRecipient halDeath_ ORB_GUARDED_BY(mutex_);
  bool halWatched_ ORB_GUARDED_BY(mutex_) = false;

  CollectorRoutes routes_;
};
