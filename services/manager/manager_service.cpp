// Tested by tests/integration/.
#include "services/manager/manager_service.h"

#include <binder/IPCThreadState.h>
#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "utility/log.h"

namespace orb::manager {

using android::binder::Status;

namespace {

// Calls that only operators may make: clients share the connection with them.
Status ForOperators(const std::function<void()>& call) {
  const uid_t caller = android::IPCThreadState::self()->getCallingUid();
  if (caller != 0 && caller != getuid()) {
    LOGW("control refused to uid %u", caller);
    return Status::fromExceptionCode(Status::EX_SECURITY);
  }
  call();
  return Status::ok();
}

}  // namespace

Status ManagerService::registerKIVClient(const KIVClientInfo& info,
                                         const android::sp<IKIVCallback>& callback,
                                         KIVClientId* id) {
  return manager_->Register(info, callback, id)
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

Status ControlService::listClients(std::vector<ClientRecord>* clients) {
  return ForOperators([&] { *clients = manager_->ListClients(); });
}

Status ControlService::startCampaign(const std::string& client, const KIVCampConfig& config,
                                     ControlReply* reply) {
  return ForOperators([&] { *reply = manager_->StartCampaign(client, config); });
}

Status ControlService::stopCampaign(const std::string& client, ControlReply* reply) {
  return ForOperators([&] { *reply = manager_->StopCampaign(client); });
}

Status ControlService::releaseCampaign(const std::string& client, ControlReply* reply) {
  return ForOperators([&] { *reply = manager_->ReleaseCampaign(client); });
}

Status ControlService::startLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  return ForOperators([&] { *reply = manager_->SetLicSn(client, lic_sn, true); });
}

Status ControlService::stopLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  return ForOperators([&] { *reply = manager_->SetLicSn(client, lic_sn, false); });
}

Status ControlService::dumpClient(const std::string& client, const UniqueFd& fd,
                                  ControlReply* reply) {
  // The task outlives this call when the client hangs.
  UniqueFd copy(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
  return ForOperators([&] { *reply = manager_->DumpClient(client, std::move(copy)); });
}

}  // namespace orb::manager
