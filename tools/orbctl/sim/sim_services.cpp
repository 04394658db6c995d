// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/sim_services.h"

#include <android/binder_manager.h>

#include <utility>

#include "services/hal/spool.h"
#include "services/manager/manager_service.h"
#include "services/manager/state_store.h"
#include "tools/orbctl/sim/sim_clock.h"

namespace orb::orbctl {

using android::sp;
using android::String16;
using ::ndk::ScopedAStatus;

namespace {

// For services that outlive what they serve: threads end with their owner.
template <typename T>
std::shared_ptr<T> Borrowed(T* object) {
  return std::shared_ptr<T>(std::shared_ptr<void>(), object);
}

}  // namespace

// One incarnation of the HAL's process.
class SimServices::SimHal : public hal::OrbsyshalService {
 public:
  SimHal(std::shared_ptr<hal::Hal> hal, std::shared_ptr<HalState> state)
      : OrbsyshalService(std::move(hal)), state_(std::move(state)) {}

  // A call that waits in it ends without an effect.
  void Die() {
    dead_ = true;
    SimClock::Get().WakeAll();
  }

  ScopedAStatus request_read(const std::string& name, int32_t total, bool* stored) override {
    *stored = false;
    if (!Serves()) return ScopedAStatus::ok();
    ScopedAStatus status = OrbsyshalService::request_read(name, total, stored);
    if (*stored) ++state_->accepted;
    return status;
  }

  ScopedAStatus fd_write_to_system_dropbox(const std::string& name,
                                           const std::vector<uint8_t>& header, int32_t token,
                                           int32_t offset, int32_t size, int32_t compress,
                                           int32_t* result) override {
    *result = -EIO;
    if (!Serves()) return ScopedAStatus::ok();
    ScopedAStatus status = OrbsyshalService::fd_write_to_system_dropbox(name, header, token, offset,
                                                                        size, compress, result);
    if (*result == 0) ++state_->accepted;
    return status;
  }

 private:
  // False when the call is to fail.
  bool Serves() {
    ++state_->asked;
    const std::chrono::nanoseconds delay(state_->delay_ns.load());
    if (delay.count() > 0) {
      SimClock::Get().Sleep(SimClock::Sleeper::kHal, delay, [this] { return dead_.load(); });
    }
    return !dead_ && !state_->wrong;
  }

  const std::shared_ptr<HalState> state_;
  std::atomic<bool> dead_{false};
};

std::unique_ptr<SimServices> SimServices::Open(const std::string& directory, std::string* error) {
  auto spool = hal::Spool::Open(directory + "/spool", 0);
  if (!spool.ok()) {
    *error = spool.error().text;
    return nullptr;
  }
  auto store = manager::StateStore::Open(directory + "/manager");
  if (!store.ok()) {
    *error = store.error().text;
    return nullptr;
  }
  std::unique_ptr<SimServices> services(
      new SimServices(std::make_shared<hal::Hal>(*std::move(spool)),
                      std::make_shared<manager::CampaignManager>(*std::move(store))));
  services->StartManager();
  if (services->StartHal()) return services;
  *error = "the HAL cannot be published";
  return nullptr;
}

SimServices::SimServices(std::shared_ptr<hal::Hal> hal,
                         std::shared_ptr<manager::CampaignManager> manager)
    : names_(new orb_platform::LocalServiceManager()),
      hal_(std::move(hal)),
      manager_(std::move(manager)) {
  android::setDefaultServiceManager(names_);
}

// Nobody calls them any more; the client, which is never destroyed, still holds
// the services.
SimServices::~SimServices() {
  names_->Remove(hal::kHalServiceName);
  names_->Remove(manager::kManagerServiceName);
}

bool SimServices::StartHal() {
  hal_service_ = ::ndk::SharedRefBase::make<SimHal>(Borrowed(hal_.get()), state_);
  return AServiceManager_addService(hal_service_->asBinder().get(), hal::kHalServiceName) ==
         EX_NONE;
}

void SimServices::KillHal() {
  hal_service_->Die();
  names_->Kill(hal::kHalServiceName);
}

// A manager that comes back remembers what its predecessor left on disk, and
// this one has it in memory: for the client they are the same.
void SimServices::StartManager() {
  const sp<manager::ManagerService> service(new manager::ManagerService(Borrowed(manager_.get())));
  names_->addService(String16(manager::kManagerServiceName), service);
  manager_runs_ = true;
}

void SimServices::KillManager() {
  manager_runs_ = false;
  names_->Kill(manager::kManagerServiceName);
}

manager::ClientRecord SimServices::Client(const std::string& name) {
  for (manager::ClientRecord& record : manager_->ListClients()) {
    if (record.name() == name) return std::move(record);
  }
  return {};
}

}  // namespace orb::orbctl
