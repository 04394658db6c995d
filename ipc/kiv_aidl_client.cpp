// Registration: the way to the manager, and what happens when it dies.
// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/kiv_aidl_client.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include "collector/kiv_collector.h"
#include "ipc/BpKIVManager.h"
#include "ipc/kiv_callback_impl.h"
#include "ipc/orbv_death_recipient.h"
#include "utility/log.h"

using ::android::IBinder;
using ::android::IServiceManager;
using ::android::ProcessState;
using ::android::sp;
using ::android::String16;
using ::android::binder::Status;

namespace {

constexpr char kManagerService[] = "vendor_kivsdkservice";

// Null while the manager is not published; does not wait for it.
sp<IBinder> CheckManager() {
  const sp<IServiceManager> services = ::android::defaultServiceManager();
  return services != nullptr ? services->checkService(String16(kManagerService)) : nullptr;
}

}  // namespace

std::shared_ptr<kivAIDLClient> kivAIDLClient::getClientInstance() {
  // Never destroyed: binder threads outlive static destructors.
  static const auto* const instance =
      new std::shared_ptr<kivAIDLClient>(std::make_shared<kivAIDLClient>());
  return *instance;
}

kivAIDLClient::kivAIDLClient() = default;

kivAIDLClient::~kivAIDLClient() = default;

int kivAIDLClient::registerClient(const std::string& name, uint32_t clientType,
                                  uint32_t clientOption, kiv_collector* collector) {
  LOGI("%s: called", "registerClient");
  const sp<ProcessState> process = ProcessState::self();
  if (process == nullptr) {
    LOGE("%s: ProcessState init failed", "registerClient");
    return -1;
  }
  process->startThreadPool();
  LOGI("%s - created threadpool", "registerClient");

  orb::MutexLock lock(mutex_);
  if (!ipcInitialised_ && !initOrbVHandle()) {
    LOGE("%s failed to init IPC", "registerClient");
    return -1;
  }
  KIVClientInfo info;
  info.clientName = name;
  info.clientType = static_cast<int32_t>(clientType);
  info.clientOption = static_cast<int8_t>(clientOption);
  KIVClientId id;
  const Status status = manager_->registerKIVClient(info, callback_, &id);
  if (!status.isOk()) {
    LOGE("%s - failed with error - %d", "registerClient", status.exceptionCode());
    // One that died before it could be watched is never reported, and every
    // later attempt would meet it again.
    if (!managerWatched_) {
      ipcInitialised_ = false;
      manager_ = nullptr;
    }
    return -1;
  }
  LOGI("%s success. Token received - %s , client id received - %d", "registerClient",
       id.token.c_str(), id.clientId);
  // In this order: a collector that can be found knows who it is.
  collector->SetIdentity(id.token, id.clientId);
  routes_.Add(id.token, collector);
  return 0;
}

int kivAIDLClient::deRegisterClient(const std::string& token) {
  LOGI("%s called for token - %s", "deRegisterClient", token.c_str());
  orb::MutexLock lock(mutex_);
  if (manager_ == nullptr) {
    LOGE("%s - Failed to get orb manager handle", "deRegisterClient");
    return -1;
  }
  const Status status = manager_->deregisterKIVClient(token);
  if (!status.isOk()) {
    LOGE("%s - failed with error - %d", "deRegisterClient", status.exceptionCode());
  }
  routes_.Remove(token);
  return status.isOk() ? 0 : -1;
}

void kivAIDLClient::forgetCollector(kiv_collector* collector) { routes_.Forget(collector); }

bool kivAIDLClient::initOrbVHandle() {
  LOGI("%s - getting new instance of orb client binder", "initOrbVHandle");
  if (CheckManager() == nullptr) {
    LOGE("%s - orbsdkservice service not available yet", "initOrbVHandle");
    return false;
  }
  managerBinder_ = CheckManager();
  if (managerBinder_ == nullptr) {
    LOGE("%s - getService failed", "initOrbVHandle");
    return false;
  }
  LOGI("%s - got new instance of orb client binder", "initOrbVHandle");
  if (managerDeath_ == nullptr) managerDeath_ = sp<OrbvDeathRecipient>(new OrbvDeathRecipient());
  const ::android::status_t linked = managerBinder_->linkToDeath(managerDeath_, nullptr, 0);
  LOGI("%s: linkToDeath status: %d", "initOrbVHandle", linked);
  managerWatched_ = linked == ::android::OK;
  manager_ = sp<IKIVManager>(new BpKIVManager(managerBinder_));
  callback_ = sp<IKIVCallback>(new KIVCallbackImpl());
  ipcInitialised_ = true;
  return true;
}

void kivAIDLClient::processLostManagerConn() {
  orb::MutexLock lock(mutex_);
  // LostConn only starts a thread; what that thread does waits for the mutex.
  for (const CollectorRoutes::Pin& collector : routes_.FindAll()) collector->LostConn();
  ipcInitialised_ = false;
  routes_.RemoveAll();
  manager_ = nullptr;
}
