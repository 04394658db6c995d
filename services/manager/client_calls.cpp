// The calls to a client. All run on the client's own threads.
// Tested by tests/services/campaign_manager_test.cpp.
#include <sys/mman.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <algorithm>
#include <cinttypes>

#include "services/manager/campaign_manager.h"
#include "services/manager/campaign_state.h"
#include "services/manager/control/campaign.h"
#include "utility/log.h"
#include "utility/unique_fd.h"

namespace orb::manager {

using android::binder::Status;

namespace {

// 1,024 KPIs and as many owners take less.
constexpr size_t kMaxDumpBytes = size_t{4} << 20;

// At most one block more than a dump may have.
std::string ReadAll(int fd) {
  std::string text;
  char block[64 << 10];
  ssize_t got = 0;
  while (text.size() <= kMaxDumpBytes &&
         (got = pread(fd, block, sizeof block, static_cast<off_t>(text.size()))) > 0) {
    text.append(block, static_cast<size_t>(got));
  }
  return text;
}

}  // namespace

ControlReply CampaignManager::CallFailed(RegisteredClient* client, const char* call,
                                         const Status& status) {
  const int error = status.transactionError();
  LOGE("client %s: %s failed: %s", client->name.c_str(), call, status.toString8().c_str());
  if (error == android::FAILED_TRANSACTION) {
    return Reply(ControlReply::FAILED,
                 "the bus did not carry the call to " + client->name + " or its answer");
  }
  if (error == android::DEAD_OBJECT) {
    ClientDied(client->token);  // The death notice may come later.
    return Reply(ControlReply::FAILED, client->name + " died");
  }
  return Reply(ControlReply::FAILED,
               client->name + " cannot be called: " + status.toString8().c_str());
}

ControlReply CampaignManager::Start(RegisteredClient* client, const SavedCampaign& campaign) {
  SessionState session = client->Session();
  if (session.running) {
    // Not passed on: a refused start would still change the id that the client
    // stamps on its uploads.
    return Reply(ControlReply::REFUSED, "campaign " + std::to_string(session.camp_id) +
                                            " runs on " + client->name + "; stop it first");
  }
  LookForHal();
  session.hal_changes = hal_changes_;
  client->SetSession(session);
  client->watch().Begin();
  int32_t result = -1;
  const Status status = client->callback->StartSession(client->token, ToConfig(campaign), &result);
  const bool died = status.transactionError() == android::DEAD_OBJECT;
  ControlReply reply = status.isOk() ? Started(client, campaign, result)
                                     : CallFailed(client, "StartSession", status);
  // The campaign is saved by now: the death of a client that has gone meanwhile counts too.
  Book(client->name, client->watch().End(died || (status.isOk() && result == 0), timing_.now()));
  return reply;
}

ControlReply CampaignManager::Started(RegisteredClient* client, const SavedCampaign& campaign,
                                      int32_t result) {
  SessionState session = client->Session();
  session.last_result = result;
  session.running = result == 0;
  session.restart_refused = session.restart_refused && result != 0;
  session.camp_id = campaign.camp_id();
  session.since_ms = NowMs();
  client->SetSession(session);
  if (result != 0) {
    LOGW("client %s refused campaign %" PRId64 ": result %d", client->name.c_str(),
         campaign.camp_id(), result);
    return Reply(ControlReply::REFUSED,
                 client->name + " refused the campaign with result " + std::to_string(result) +
                     "; its log says why",
                 result);
  }
  LOGI("client %s runs campaign %" PRId64, client->name.c_str(), campaign.camp_id());
  if (Keep(*client, campaign)) return Reply(ControlReply::DONE, "");
  if (client->Replaced()) {
    return Reply(ControlReply::FAILED, client->name + " has another registration by now");
  }
  return Reply(ControlReply::DONE, "it runs, but could not be saved: it ends with the manager");
}

bool CampaignManager::Keep(const RegisteredClient& client, const SavedCampaign& campaign) {
  MutexLock lock(mutex_);
  return !client.Replaced() && store_->SetCampaign(client.name, campaign);
}

void CampaignManager::StopReplaced(RegisteredClient* client) {
  const SessionState session = client->Session();
  if (!session.running) return;
  LOGI("client %s: its former process is told to stop campaign %" PRId64, client->name.c_str(),
       session.camp_id);
  static_cast<void>(client->callback->StopSession(client->token, session.camp_id).isOk());
}

ControlReply CampaignManager::Stop(RegisteredClient* client) {
  SessionState session = client->Session();
  SavedCampaign saved;
  if (!session.running && !store_->GetCampaign(client->name, &saved)) {
    return Reply(ControlReply::REFUSED, "no campaign runs on " + client->name);
  }
  // The disk comes first: a manager that ends in between must not start it again.
  const bool cleared = store_->ClearCampaign(client->name);
  const bool was_running = session.running;
  const int64_t camp_id = session.camp_id;
  session = SessionState();
  client->SetSession(session);
  client->watch().Stop();
  if (was_running) {
    const Status status = client->callback->StopSession(client->token, camp_id);
    // A client that died has no session either.
    if (!status.isOk()) {
      ControlReply failed = CallFailed(client, "StopSession", status);
      if (status.transactionError() != android::DEAD_OBJECT) return failed;
    }
    LOGI("client %s: campaign %" PRId64 " stopped", client->name.c_str(), camp_id);
  }
  return cleared ? Reply(ControlReply::DONE, "") : NotSaved();
}

ControlReply CampaignManager::SwitchLicSn(RegisteredClient* client, int64_t lic_sn, bool run) {
  const SessionState session = client->Session();
  SavedCampaign saved;
  if (!session.running || !store_->GetCampaign(client->name, &saved)) {
    return Reply(ControlReply::REFUSED, "no campaign runs on " + client->name);
  }
  const auto known = std::any_of(saved.lic_keys().begin(), saved.lic_keys().end(),
                                 [&](const LicKey& key) { return key.lic_sn() == lic_sn; });
  if (!known) {
    return Reply(ControlReply::REFUSED, "campaign " + std::to_string(session.camp_id) + " of " +
                                            client->name + " has no LicSN " +
                                            std::to_string(static_cast<uint64_t>(lic_sn)));
  }
  const Status status =
      run ? client->callback->StartSessionforLicSN(client->token, session.camp_id, lic_sn)
          : client->callback->StopSessionforLicSN(client->token, session.camp_id, lic_sn);
  if (!status.isOk()) {
    return CallFailed(client, run ? "StartSessionforLicSN" : "StopSessionforLicSN", status);
  }
  const bool kept = store_->ChangeCampaign(client->name, [&](SavedCampaign* campaign) {
    auto* stopped = campaign->mutable_stopped_lic_sns();
    stopped->erase(std::remove(stopped->begin(), stopped->end(), lic_sn), stopped->end());
    if (!run) stopped->Add(lic_sn);
    return true;
  });
  return kept ? Reply(ControlReply::DONE, "") : NotSaved();
}

ControlReply CampaignManager::Dump(RegisteredClient* client) {
  // Memory, not a pipe: the client, which holds it as well, is never made to wait.
  const UniqueFd memory(memfd_create("orb-managerd-dump", MFD_CLOEXEC));
  if (!memory.ok()) return Reply(ControlReply::FAILED, "no memory for the dump");
  android::Vector<android::String16> args;
  args.add(android::String16("--token"));
  args.add(android::String16(client->token.c_str()));
  const android::status_t status =
      android::IInterface::asBinder(client->callback)->dump(memory.get(), args);
  if (status == android::NAME_NOT_FOUND) {
    return Reply(ControlReply::REFUSED, client->name + " does not know of its registration yet");
  }
  if (status != android::OK) return CallFailed(client, "dump", Status::fromStatusT(status));
  ControlReply reply = Reply(ControlReply::DONE, "");
  reply.set_dump(ReadAll(memory.get()));
  if (reply.dump().size() <= kMaxDumpBytes) return reply;
  return Reply(ControlReply::FAILED,
               client->name + " says more of itself than a client of this library does");
}

}  // namespace orb::manager
