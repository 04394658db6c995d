// Giving clients back what they ran.
// Tested by tests/services/campaign_manager_test.cpp.
#include <algorithm>
#include <cinttypes>
#include <string>
#include <utility>

#include "services/manager/campaign_manager.h"
#include "services/manager/campaign_state.h"
#include "utility/log.h"

namespace orb::manager {

void CampaignManager::BeginRestarts(const Client& client) {
  SavedCampaign saved;
  if (!store_->GetCampaign(client->name, &saved)) return;
  if (InQuarantine(saved)) {
    LOGW("client %s: campaign %" PRId64 " stays in quarantine", client->name.c_str(),
         saved.camp_id());
    return;
  }
  RestartLater(client->token, client->BeginAttempts(), 0);
}

std::chrono::milliseconds CampaignManager::WaitBefore(size_t attempt) const {
  const auto& waits = timing_.restart_waits;
  if (attempt < waits.size()) return waits[attempt];
  std::chrono::milliseconds wait = waits.back();
  for (size_t i = waits.size(); i <= attempt && wait < timing_.restart_wait_max; ++i) wait *= 2;
  return std::min(wait, timing_.restart_wait_max);
}

// The client's thread is not kept waiting: operators' calls go through between two attempts.
void CampaignManager::RestartLater(const std::string& token, uint64_t series, size_t attempt) {
  const bool waits = timer_.After(WaitBefore(attempt), [this, token, series, attempt] {
    const Client client = FindToken(token);
    if (client == nullptr || !client->IsCurrent(series)) return;
    const bool posted = client->calls().Post(
        [this, raw = client.get(), series, attempt] { Restart(raw, series, attempt); });
    if (!posted) RestartLater(token, series, attempt + 1);
  });
  if (!waits) LOGE("a client's campaign cannot be started again: too many clients wait");
}

ControlReply CampaignManager::GiveBack(RegisteredClient* client, const SavedCampaign& saved) {
  // The start saves the campaign with all its LicSNs running.
  SavedCampaign all_run = saved;
  all_run.clear_stopped_lic_sns();
  ControlReply reply = Start(client, all_run);
  if (reply.status() != ControlReply::DONE) return reply;
  for (const int64_t lic_sn : saved.stopped_lic_sns()) SwitchLicSn(client, lic_sn, false);
  return reply;
}

void CampaignManager::Restart(RegisteredClient* client, uint64_t series, size_t attempt) {
  SavedCampaign saved;
  if (!client->IsCurrent(series) || !store_->GetCampaign(client->name, &saved)) return;
  if (InQuarantine(saved)) return;
  if (client->Session().running) {
    if (!SlotsAreLost(client)) return;
    if (!StopToRenew(client)) return RestartLater(client->token, series, attempt + 1);
  }
  if (GiveBack(client, saved).status() == ControlReply::DONE) return;
  if (attempt + 1 == timing_.restart_waits.size()) {
    SessionState session = client->Session();
    session.restart_refused = true;
    client->SetSession(session);
    LOGE("client %s does not take its campaign back: result %d", client->name.c_str(),
         session.last_result);
  }
  RestartLater(client->token, series, attempt + 1);
}

void CampaignManager::LookForHalWith(std::function<void()> look) {
  MutexLock lock(mutex_);
  look_for_hal_ = std::move(look);
}

void CampaignManager::LookForHal() {
  std::function<void()> look;
  {
    MutexLock lock(mutex_);
    look = look_for_hal_;
  }
  look();
}

bool CampaignManager::SlotsAreLost(RegisteredClient* client) {
  SessionState session = client->Session();
  const uint64_t changes = hal_changes_;
  if (session.hal_changes == changes) return false;
  if (HasSlots(client)) return true;
  session.hal_changes = changes;  // No need to ask it again for this HAL.
  client->SetSession(session);
  return false;
}

bool CampaignManager::StopToRenew(RegisteredClient* client) {
  SessionState session = client->Session();
  const android::binder::Status status =
      client->callback->StopSession(client->token, session.camp_id);
  if (!status.isOk()) {
    CallFailed(client, "StopSession", status);
    return false;
  }
  session.running = false;
  client->SetSession(session);
  client->watch().Stop();
  LOGI("client %s: campaign %" PRId64 " begins again, its slots went with a HAL",
       client->name.c_str(), session.camp_id);
  return true;
}

// The library says so when asked; a client that says nothing is left alone.
bool CampaignManager::HasSlots(RegisteredClient* client) {
  return Dump(client).dump().find("\nclient.mode: slots\n") != std::string::npos;
}

}  // namespace orb::manager
