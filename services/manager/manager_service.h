// The manager on the bus: what clients call, and what operators call.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ipc/BnKIVManager.h"
#include "services/manager/campaign_manager.h"
#include "services/manager/control/control_call.h"

namespace orb::manager {

inline constexpr const char* kManagerServiceName = "vendor_kivsdkservice";

// The user whose call this thread serves; tests put another in its place.
using CallerUid = std::function<uid_t()>;
// Answers kNoUser when the caller has left the bus.
uid_t UidOfCaller();
inline constexpr uid_t kNoUser = static_cast<uid_t>(-1);

// Serves clients. Any thread.
class ManagerService : public BnKIVManager {
 public:
  explicit ManagerService(std::shared_ptr<CampaignManager> manager, CallerUid caller = UidOfCaller)
      : manager_(std::move(manager)), caller_(std::move(caller)) {}

  android::binder::Status registerKIVClient(const KIVClientInfo& info,
                                            const android::sp<IKIVCallback>& callback,
                                            KIVClientId* id) override;
  android::binder::Status checkForPendingSession(const std::string& token) override;
  android::binder::Status deregisterKIVClient(const std::string& token) override;
  // Always answers false: uploads go to the HAL.
  android::binder::Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                                   bool* result) override;

 private:
  const std::shared_ptr<CampaignManager> manager_;
  const CallerUid caller_;
};

// Serves operators: root and the user that the manager runs as, who may do all but
// FORGET_CLIENT; anybody else gets EX_SECURITY before an argument is read. Any thread;
// blocks for the client's answer.
class ControlService : public android::BBinder {
 public:
  explicit ControlService(std::shared_ptr<CampaignManager> manager, CallerUid caller = UidOfCaller);

  const android::String16& getInterfaceDescriptor() const override { return ControlDescriptor(); }
  android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags) override;

  // Does what the request asks, whoever the caller is but for FORGET_CLIENT.
  ControlReply Handle(const ControlRequest& request);

 private:
  const std::shared_ptr<CampaignManager> manager_;
  const CallerUid caller_;
};

}  // namespace orb::manager
