// Tested by tests/services/campaign_manager_test.cpp.
#include "services/manager/campaign_state.h"

#include <chrono>

namespace orb::manager {

ClientRecord RecordOf(const ClientState& state, const RegisteredClient* client) {
  ClientRecord record;
  record.set_name(state.name());
  record.set_client_id(state.client_id());
  if (state.has_owner_uid()) record.set_owner_uid(state.owner_uid());
  if (state.has_campaign()) {
    const SavedCampaign& campaign = state.campaign();
    record.set_session(InQuarantine(campaign) ? ClientRecord::QUARANTINED : ClientRecord::WAITING);
    record.set_camp_id(campaign.camp_id());
    for (const LicKey& key : campaign.lic_keys()) record.add_lic_sns(key.lic_sn());
    *record.mutable_stopped_lic_sns() = campaign.stopped_lic_sns();
  }
  if (client == nullptr) return record;
  const SessionState session = client->Session();
  record.set_client_type(client->type);
  record.set_client_option(client->option);
  record.set_connected(true);
  record.set_connected_since_ms(client->since_ms);
  record.set_last_result(session.last_result);
  if (session.running) {
    record.set_session(ClientRecord::RUNNING);
    record.set_camp_id(session.camp_id);
    record.set_session_since_ms(session.since_ms);
  } else if (record.session() == ClientRecord::WAITING && session.restart_refused) {
    record.set_session(ClientRecord::REFUSED);
  }
  return record;
}

ControlReply Reply(ControlReply::Status status, const std::string& message, int32_t result) {
  ControlReply reply;
  reply.set_status(status);
  reply.set_result(result);
  reply.set_message(message);
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
