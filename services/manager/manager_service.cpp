// Tested by tests/services/control_test.cpp and tests/integration/.
#include "services/manager/manager_service.h"

#include "utility/log.h"

namespace orb::manager {

using android::binder::Status;

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

Status ControlService::startLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  *reply = manager_->SetLicSn(client, lic_sn, true);
  return Status::ok();
}

Status ControlService::stopLicSN(const std::string& client, int64_t lic_sn, ControlReply* reply) {
  *reply = manager_->SetLicSn(client, lic_sn, false);
  return Status::ok();
}

}  // namespace orb::manager
