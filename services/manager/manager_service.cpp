// Tested by tests/integration/.
#include "services/manager/manager_service.h"

#include <binder/IPCThreadState.h>
#include <binder/Stability.h>
#include <unistd.h>

#include <utility>

#include "services/manager/campaign_state.h"
#include "utility/log.h"

namespace orb::manager {

using android::IBinder;
using android::Parcel;
using android::status_t;
using android::binder::Status;

uid_t UidOfCaller() { return android::IPCThreadState::self()->getCallingUid(); }

Status ManagerService::registerKIVClient(const KIVClientInfo& info,
                                         const android::sp<IKIVCallback>& callback,
                                         KIVClientId* id) {
  const uid_t caller = caller_();
  // A name is a user's: nobody can have one who is not known.
  if (caller == kNoUser) return Status::fromExceptionCode(Status::EX_SECURITY);
  return manager_->Register(info, caller, callback, id)
             ? Status::ok()
             : Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT);
}

Status ManagerService::checkForPendingSession(const std::string& token) {
  manager_->CheckPending(token);
  return Status::ok();
}

Status ManagerService::deregisterKIVClient(const std::string& token) {
  return manager_->Deregister(token) ? Status::ok()
                                     : Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT);
}

Status ManagerService::sendData(const std::vector<uint8_t>& data, const std::string&,
                                bool* result) {
  LOGW("%zu bytes of data refused: uploads go to the HAL", data.size());
  *result = false;
  return Status::ok();
}

ControlService::ControlService(std::shared_ptr<CampaignManager> manager, CallerUid caller)
    : manager_(std::move(manager)), caller_(std::move(caller)) {
  android::internal::Stability::markCompilationUnit(this);
}

// Clients share the connection with operators, so that the bus lets them through to here.
status_t ControlService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                    uint32_t flags) {
  if (code < IBinder::FIRST_CALL_TRANSACTION || code > IBinder::LAST_CALL_TRANSACTION) {
    return BBinder::onTransact(code, data, reply, flags);
  }
  const uid_t caller = caller_();
  if (caller != 0 && caller != getuid()) {
    LOGW("control refused to uid %u", caller);
    return Status::fromExceptionCode(Status::EX_SECURITY).writeToParcel(reply);
  }
  if (code != kControlCall) return android::UNKNOWN_TRANSACTION;
  return ServeControl(this, data, reply,
                      [this](const ControlRequest& request) { return Handle(request); });
}

ControlReply ControlService::Handle(const ControlRequest& request) {
  const std::string& client = request.client();
  ControlReply reply;
  switch (request.call()) {
    case ControlRequest::LIST_CLIENTS:
      reply.set_status(ControlReply::DONE);
      for (ClientRecord& record : manager_->ListClients()) *reply.add_clients() = std::move(record);
      return reply;
    case ControlRequest::START_CAMPAIGN:
      return manager_->StartCampaign(client, request.campaign());
    case ControlRequest::STOP_CAMPAIGN:
      return manager_->StopCampaign(client);
    case ControlRequest::RELEASE_CAMPAIGN:
      return manager_->ReleaseCampaign(client);
    case ControlRequest::FORGET_CLIENT:
      // The user that the manager runs as is no administrator: a name that is released may
      // be anybody's next.
      if (caller_() == 0) return manager_->ForgetClient(client, request.force());
      return Reply(ControlReply::REFUSED, "only root may have a client forgotten; try sudo");
    case ControlRequest::START_LIC_SN:
    case ControlRequest::STOP_LIC_SN:
      return manager_->SetLicSn(client, request.lic_sn(),
                                request.call() == ControlRequest::START_LIC_SN);
    case ControlRequest::DUMP_CLIENT:
      return manager_->DumpClient(client);
    default:
      return Reply(ControlReply::REFUSED, "orb-managerd does not know this request; is it older?");
  }
}

}  // namespace orb::manager
