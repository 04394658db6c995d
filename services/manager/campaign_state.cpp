// Tested by tests/services/campaign_manager_test.cpp.
#include "services/manager/campaign_state.h"

#include <chrono>

namespace orb::manager {

SavedCampaign ToSaved(const KIVCampConfig& config) {
  SavedCampaign saved;
  saved.set_camp_id(config.campId);
  saved.set_definition(std::string(config.campaignDef.begin(), config.campaignDef.end()));
  for (const LicInfo& lic : config.licInfo) {
    LicKey* key = saved.add_lic_keys();
    key->set_lic_sn(lic.licSN);
    key->set_symmetric_algo(lic.sKeyEncAlgo);
    key->set_public_key_algo(lic.pKeyEncAlgo);
    key->set_public_key(std::string(lic.encryptionPKey.begin(), lic.encryptionPKey.end()));
  }
  return saved;
}

KIVCampConfig ToConfig(const SavedCampaign& saved) {
  KIVCampConfig config;
  config.campId = saved.camp_id();
  config.campaignDef.assign(saved.definition().begin(), saved.definition().end());
  for (const LicKey& key : saved.lic_keys()) {
    LicInfo lic;
    lic.licSN = key.lic_sn();
    lic.sKeyEncAlgo = key.symmetric_algo();
    lic.pKeyEncAlgo = key.public_key_algo();
    lic.encryptionPKey.assign(key.public_key().begin(), key.public_key().end());
    config.licInfo.push_back(lic);
  }
  return config;
}

ClientRecord RecordOf(const ClientState& state, const RegisteredClient* client) {
  ClientRecord record;
  record.name = state.name();
  record.clientId = state.client_id();
  if (state.has_owner_uid()) record.ownerUid = state.owner_uid();
  if (state.has_campaign()) {
    record.session =
        InQuarantine(state.campaign()) ? ClientRecord::QUARANTINED : ClientRecord::WAITING;
    record.campId = state.campaign().camp_id();
    for (const LicKey& key : state.campaign().lic_keys()) record.licSNs.push_back(key.lic_sn());
    record.stoppedLicSNs.assign(state.campaign().stopped_lic_sns().begin(),
                                state.campaign().stopped_lic_sns().end());
  }
  if (client == nullptr) return record;
  const SessionState session = client->Session();
  record.clientType = client->type;
  record.clientOption = client->option;
  record.connected = true;
  record.connectedSinceMs = client->since_ms;
  record.lastResult = session.last_result;
  if (session.running) {
    record.session = ClientRecord::RUNNING;
    record.campId = session.camp_id;
    record.sessionSinceMs = session.since_ms;
  } else if (record.session == ClientRecord::WAITING && session.restart_refused) {
    record.session = ClientRecord::REFUSED;
  }
  return record;
}

ControlReply Reply(ControlReply::Status status, const std::string& message, int32_t result) {
  ControlReply reply;
  reply.status = status;
  reply.result = result;
  reply.message = message;
  return reply;
}

ControlReply NotSaved() {
  return Reply(ControlReply::FAILED,
               "the manager cannot write its state; see its log and the disk it is on");
}

int64_t NowMs() {
  using std::chrono::system_clock;
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             system_clock::now().time_since_epoch())
      .count();
}

}  // namespace orb::manager
