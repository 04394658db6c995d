// Tested by tests/integration/.
#include "services/manager/manager_service.h"

#include <binder/IPCThreadState.h>
#include <fcntl.h>
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

// Clients share the connection with operators, so that the bus lets them through to here.
status_t ControlService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                    uint32_t flags) {
  const bool method =
      code >= IBinder::FIRST_CALL_TRANSACTION && code <= IBinder::LAST_CALL_TRANSACTION;
  if (method) {
    const uid_t caller = caller_();
    if (caller != 0 && caller != getuid()) {
      LOGW("control refused to uid %u", caller);
      return Status::fromExceptionCode(Status::EX_SECURITY).writeToParcel(reply);
    }
  }
  return BnOrbControl::onTransact(code, data, reply, flags);
}

Status ControlService::listClients(std::vector<ClientRecord>* clients) {
  *clients = manager_->ListClients();
  return Status::ok();
}

Status ControlService::startCampaign(const std::string& client, const KIVCampConfig& config,
                                     ControlReply* reply) {
  *reply = manager_->StartCampaign(client, config);
  return Status::ok();
}

Status ControlService::stopCampaign(const std::string& client, ControlReply* reply) {
  *reply = manager_->StopCampaign(client);
  return Status::ok();
}

Status ControlService::releaseCampaign(const std::string& client, ControlReply* reply) {
  *reply = manager_->ReleaseCampaign(client);
  return Status::ok();
}

// The user that the manager runs as is no administrator: a name that is released may be
// anybody's next.
Status ControlService::forgetClient(const std::string& client, bool force, ControlReply* reply) {
  *reply = caller_() == 0
               ? manager_->ForgetClient(client, force)
               : Reply(ControlReply::REFUSED, "only root may have a client forgotten; try sudo");
  return Status::ok();
}

Status ControlService::startLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  *reply = manager_->SetLicSn(client, lic_sn, true);
  return Status::ok();
}

Status ControlService::stopLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  *reply = manager_->SetLicSn(client, lic_sn, false);
  return Status::ok();
}

Status ControlService::dumpClient(const std::string& client, const UniqueFd& fd,
                                  ControlReply* reply) {
  // The task outlives this call when the client hangs.
  *reply = manager_->DumpClient(client, UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0)));
  return Status::ok();
}

}  // namespace orb::manager
