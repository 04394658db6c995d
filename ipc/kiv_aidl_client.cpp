// Connects to the manager, registers collectors, and handles the manager's death.
// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/kiv_aidl_client.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include <utility>

#include "ipc/BpKIVManager.h"
#include "ipc/kiv_callback_impl.h"
#include "ipc/orbv_death_recipient.h"
#include "ipc/routed_collector.h"
#include "utility/checked.h"
#include "utility/log.h"

using ::android::IBinder;
using ::android::IServiceManager;
using ::android::ProcessState;
using ::android::sp;
using ::android::String16;
using ::android::binder::Status;

namespace {

constexpr char kManagerService[] = "vendor_kivsdkservice";

// Null while the manager is not published; does not wait. Call once the gate is open.
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

kivAIDLClient::kivAIDLClient() : serviceManager_(LookUpManager), halServiceManager_(LookUpHal) {}

kivAIDLClient::~kivAIDLClient() = default;

int kivAIDLClient::registerClient(const std::string& name, uint32_t clientType,
                                  uint32_t clientOption, RoutedCollector* collector) {
  LOGI("%s: called", "registerClient");
  const sp<ProcessState> process = ProcessState::self();
  if (process == nullptr) {
    LOGE("%s: ProcessState init failed", "registerClient");
    return -1;
  }
  process->startThreadPool();
  if (!process->isThreadPoolStarted()) {
    LOGE("%s: no thread for the manager's calls", "registerClient");
    return -1;
  }
  LOGI("%s - created threadpool", "registerClient");

  halServiceManager_.Ask();  // Early, so that a session's first upload need not wait.
  // With no lock held, because it may wait for kWaitMs.
  serviceManager_.Await([collector] { return collector->stopping(); });
  const Manager manager = EnsureManager();
  if (manager.proxy == nullptr) {
    LOGE("%s failed to init IPC", "registerClient");
    return -1;
  }
  KIVClientInfo info;
  info.clientName = name;
  info.clientType = static_cast<int32_t>(clientType);
  info.clientOption = static_cast<int8_t>(clientOption);
  KIVClientId id;
  // No lock: the manager may first finish a call to another collector of this
  // process, which uploads, or make one on this very thread.
  const Status status = manager.proxy->registerKIVClient(info, manager.callback, &id);
  if (!status.isOk()) {
    LOGE("%s - failed with error - %d", "registerClient", status.exceptionCode());
    DropUnwatched(manager);
    return -1;
  }
  // If the manager has died, either its death is counted by now and this registration is
  // void, or the notice comes after the mutex is released and finds the collector's route.
  orb::MutexLock lock(managerMutex_);
  if (manager_.deaths != manager.deaths) {
    LOGE("%s - failed with error - %d", "registerClient", Status::EX_TRANSACTION_FAILED);
    return -1;
  }
  LOGI("%s success. Token received - %s , client id received - %d", "registerClient",
       id.token.c_str(), id.clientId);
  // In this order: a call that finds the collector must find its identity set.
  collector->SetIdentity(id.token, id.clientId);
  routes_.Add(id.token, collector);
  return 0;
}

int kivAIDLClient::deRegisterClient(const std::string& token) {
  LOGI("%s called for token - %s", "deRegisterClient", token.c_str());
  const Manager manager = CurrentManager();
  if (manager.proxy == nullptr) {
    LOGE("%s - Failed to get orb manager handle", "deRegisterClient");
    return -1;
  }
  const Status status = manager.proxy->deregisterKIVClient(token);
  if (!status.isOk()) {
    LOGE("%s - failed with error - %d", "deRegisterClient", status.exceptionCode());
  }
  orb::MutexLock lock(managerMutex_);
  // A death removed the token, and a new manager may have given it again.
  if (manager_.deaths == manager.deaths) routes_.Remove(token);
  return status.isOk() ? 0 : -1;
}

void kivAIDLClient::forgetCollector(RoutedCollector* collector) { routes_.Forget(collector); }

void kivAIDLClient::LookUpManager() {
  static_cast<void>(::android::defaultServiceManager());  // Waits until there is one.
}

kivAIDLClient::Manager kivAIDLClient::CurrentManager() {
  orb::MutexLock lock(managerMutex_);
  return manager_;
}

kivAIDLClient::Manager kivAIDLClient::EnsureManager() {
  orb::MutexLock connecting(managerConnect_);
  const Manager manager = CurrentManager();
  return manager.proxy != nullptr || !initOrbVHandle() ? manager : CurrentManager();
}

void kivAIDLClient::DropUnwatched(const Manager& manager) {
  sp<IKIVManager> dropped;  // Released after the lock.
  orb::MutexLock lock(managerMutex_);
  if (!manager_.watched && manager_.proxy == manager.proxy) std::swap(dropped, manager_.proxy);
}

bool kivAIDLClient::initOrbVHandle() {
  LOGI("%s - getting new instance of orb client binder", "initOrbVHandle");
  if (!serviceManager_.open() || CheckManager() == nullptr) {
    LOGE("%s - orbsdkservice service not available yet", "initOrbVHandle");
    return false;
  }
  Manager made = CurrentManager();
  made.binder = CheckManager();
  if (made.binder == nullptr) {
    LOGE("%s - getService failed", "initOrbVHandle");
    return false;
  }
  LOGI("%s - got new instance of orb client binder", "initOrbVHandle");
  if (managerDeath_ == nullptr) managerDeath_ = sp<OrbvDeathRecipient>(new OrbvDeathRecipient());
  const ::android::status_t linked = made.binder->linkToDeath(managerDeath_, nullptr, 0);
  LOGI("%s: linkToDeath status: %d", "initOrbVHandle", linked);
  made.watched = linked == ::android::OK;
  made.proxy = sp<IKIVManager>(new BpKIVManager(made.binder));
  made.callback = sp<IKIVCallback>(new KIVCallbackImpl());
  orb::MutexLock lock(managerMutex_);
  // It died between the link and here: nothing would report it again.
  if (manager_.deaths != made.deaths) return false;
  std::swap(made, manager_);  // What was there is released after the lock.
  return true;
}

void kivAIDLClient::processLostManagerConn() {
  sp<IKIVManager> lost;  // Released after the lock.
  std::vector<CollectorRoutes::Pin> collectors;
  {
    orb::MutexLock lock(managerMutex_);
    manager_.deaths = orb::CheckedAdd<uint64_t>(manager_.deaths, 1);
    std::swap(lost, manager_.proxy);
    collectors = routes_.TakeAll();
  }
  std::vector<const CollectorRoutes::Pin*> threadless;
  for (const CollectorRoutes::Pin& collector : collectors) {
    if (!collector->LostConn()) threadless.push_back(&collector);
  }
  // Last, because these block: the threads of the other collectors run by now.
  for (const CollectorRoutes::Pin* collector : threadless) (*collector)->LostConnThread();
}
