// Who is registered, and what operators ask for.
// Tested by tests/services/campaign_manager_test.cpp.
#include "services/manager/campaign_manager.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <future>
#include <utility>

#include "services/manager/campaign_state.h"
#include "services/manager/control/campaign.h"
#include "utility/log.h"
#include "utility/terminal_text.h"

namespace orb::manager {
namespace {

using android::IBinder;
using android::IInterface;
using android::sp;

constexpr size_t kTokenBytes = 16;

// 128 random bits as 32 hexadecimal digits; empty when the system has none.
std::string NewToken() {
  std::array<uint8_t, kTokenBytes> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return "";
  std::string token;
  for (const uint8_t byte : bytes) {
    char digits[3];
    static_cast<void>(snprintf(digits, sizeof digits, "%02x", byte));
    token += digits;
  }
  return token;
}

bool IsPlainName(const std::string& name) {
  return !name.empty() && name.size() <= CampaignManager::kMaxNameBytes && IsPrintable(name);
}

// Files and folders that hold the client's data are named after it.
bool CanNameAFile(const std::string& name) {
  return !name.starts_with('.') && name.find('/') == std::string::npos;
}

class DeathNotice : public IBinder::DeathRecipient {
 public:
  DeathNotice(std::weak_ptr<CampaignManager> manager, std::string token)
      : manager_(std::move(manager)), token_(std::move(token)) {}
  void binderDied(const android::wp<IBinder>&) override {
    if (const std::shared_ptr<CampaignManager> manager = manager_.lock()) {
      manager->ClientDied(token_);
    }
  }

 private:
  const std::weak_ptr<CampaignManager> manager_;
  const std::string token_;
};

}  // namespace

CampaignManager::~CampaignManager() {
  timer_.Stop();
  std::vector<Client> clients;
  {
    MutexLock lock(mutex_);
    for (const auto& [token, client] : by_token_) clients.push_back(client);
    by_token_.clear();
    clients.insert(clients.end(), retired_.begin(), retired_.end());
    retired_.clear();
  }
  for (const Client& client : clients) {
    IInterface::asBinder(client->callback)->unlinkToDeath(client->death);
    client->StopCalls();
  }
}

bool CampaignManager::Register(const KIVClientInfo& info, uid_t user,
                               const sp<IKIVCallback>& callback, KIVClientId* id) {
  const std::string token = NewToken();
  if (!IsPlainName(info.clientName) || callback == nullptr || token.empty()) {
    LOGE(
        "registration refused to uid %u: no callback, or a name that is empty, too long or not "
        "printable",
        user);
    return false;
  }
  if (!CanNameAFile(info.clientName)) {
    LOGE("registration of %s refused to uid %u: a name with a slash or a dot in front",
         info.clientName.c_str(), user);
    return false;
  }
  const auto client = std::make_shared<RegisteredClient>();
  client->name = info.clientName;
  client->token = token;
  client->user = user;
  client->type = info.clientType;
  // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number, not a character.
  client->option = info.clientOption;
  client->since_ms = NowMs();
  client->lost_buses = timing_.lost_buses();
  client->callback = callback;
  client->death = new DeathNotice(weak_from_this(), token);
  Client former;
  if (!Enter(client, &former)) return false;
  if (former != nullptr) LeaveTo(former);
  // The link is made after the client is known, so that a death notice finds it. Linking to
  // a callback of this process is refused, which does not matter: it cannot die alone.
  if (IInterface::asBinder(callback)->linkToDeath(client->death) == android::DEAD_OBJECT) {
    ClientDied(token);
    return false;
  }
  id->token = token;
  id->clientId = client->id;
  LOGI("client %s registered, id %d", client->name.c_str(), client->id);
  BeginRestarts(client);
  return true;
}

bool CampaignManager::Enter(const Client& client, Client* former) {
  MutexLock lock(mutex_);
  int left = 0;
  retired_.erase(std::remove_if(retired_.begin(), retired_.end(),
                                [&](const Client& gone) {
                                  const bool stopped =
                                      gone->CallsStoppedBy(std::chrono::steady_clock::now());
                                  left += !stopped && gone->name == client->name ? 1 : 0;
                                  return stopped;
                                }),
                 retired_.end());
  const Result<int32_t> id =
      left < RegisteredClient::kMaxLeft
          ? store_->ClientId(client->name, client->user)
          : Error{"its former registrations have not returned from their calls"};
  if (!id.ok()) {
    LOGE("registration of %s refused to uid %u: %s", client->name.c_str(), client->user,
         id.error().text.c_str());
    return false;
  }
  client->id = *id;
  *former = FindLocked(client->name);
  if (*former != nullptr) Displace(*former);
  by_token_[client->token] = client;
  return true;
}

void CampaignManager::Displace(const Client& client) {
  by_token_.erase(client->token);
  client->Replace([raw = client.get()] { StopReplaced(raw); });
  retired_.push_back(client);
}

void CampaignManager::LeaveTo(const Client& former) {
  LOGW("client %s registers again: its former registration is forgotten", former->name.c_str());
  const sp<IBinder> callback = IInterface::asBinder(former->callback);
  if (!callback->isBinderAlive()) return NoteDeath(former);  // Nobody has seen it die yet.
  callback->unlinkToDeath(former->death);
  // A second process of the name says nothing about the campaign of the first.
  LOGI("client %s deregistered", former->name.c_str());
}

bool CampaignManager::Deregister(const std::string& token) {
  const Client client = Take(token);
  if (client == nullptr) return false;
  IInterface::asBinder(client->callback)->unlinkToDeath(client->death);
  LOGI("client %s deregistered", client->name.c_str());
  Book(client->name, client->watch().Leave());
  return true;
}

void CampaignManager::ClientDied(const std::string& token) {
  const Client client = Take(token);
  if (client != nullptr) NoteDeath(client);
}

void CampaignManager::NoteDeath(const Client& client) {
  if (timing_.lost_buses() != client->lost_buses) {
    return LOGW("client %s is gone with the bus", client->name.c_str());
  }
  LOGW("client %s died", client->name.c_str());
  Book(client->name, client->watch().Die(timing_.now(), timing_.early_death));
}

void CampaignManager::Book(const std::string& name, StartWatch::Verdict verdict) {
  if (verdict == StartWatch::Verdict::kNone) return;
  store_->ChangeCampaign(name, [&](SavedCampaign* campaign) {
    const int32_t before = campaign->early_deaths();
    if (verdict == StartWatch::Verdict::kLate) {
      campaign->set_early_deaths(0);
    } else if (before < kEarlyDeathsMax) {
      campaign->set_early_deaths(before + 1);
    }
    if (campaign->early_deaths() == before) return false;
    if (InQuarantine(*campaign)) {
      LOGE("client %s died %d times in a row soon after its campaign's start: campaign %" PRId64
           " is in quarantine, until orbctl campaign release",
           name.c_str(), kEarlyDeathsMax, campaign->camp_id());
    }
    return true;
  });
}

void CampaignManager::CheckPending(const std::string& token) {
  const Client client = FindToken(token);
  if (client != nullptr) BeginRestarts(client);
}

void CampaignManager::HalCame() {
  ++hal_changes_;
  for (const Client& client : Connected()) BeginRestarts(client);
}

std::vector<CampaignManager::Client> CampaignManager::Connected() {
  MutexLock lock(mutex_);
  std::vector<Client> clients;
  for (const auto& [token, client] : by_token_) clients.push_back(client);
  return clients;
}

CampaignManager::Client CampaignManager::FindToken(const std::string& token) {
  MutexLock lock(mutex_);
  const auto found = by_token_.find(token);
  return found == by_token_.end() ? nullptr : found->second;
}

CampaignManager::Client CampaignManager::Find(const std::string& name) {
  MutexLock lock(mutex_);
  return FindLocked(name);
}

CampaignManager::Client CampaignManager::FindLocked(const std::string& name) const {
  for (const auto& [token, client] : by_token_) {
    if (client->name == name) return client;
  }
  return nullptr;
}

CampaignManager::Client CampaignManager::Take(const std::string& token) {
  MutexLock lock(mutex_);
  const auto found = by_token_.find(token);
  if (found == by_token_.end()) return nullptr;
  Client client = found->second;
  by_token_.erase(found);
  Retire(client);
  return client;
}

void CampaignManager::Retire(const Client& client) {
  client->StopCalls();
  retired_.push_back(client);
}

std::vector<ClientRecord> CampaignManager::ListClients() {
  std::map<std::string, Client> connected;
  for (const Client& client : Connected()) connected[client->name] = client;
  std::vector<ClientRecord> records;
  for (const auto& [name, state] : store_->Clients()) {
    const auto found = connected.find(name);
    records.push_back(RecordOf(state, found == connected.end() ? nullptr : found->second.get()));
  }
  return records;
}

ControlReply CampaignManager::NotThere(const std::string& name) const {
  return store_->Knows(name) ? Reply(ControlReply::REFUSED, name + " is not connected")
                             : Reply(ControlReply::REFUSED,
                                     "no client is called " + name + "; see orbctl client list");
}

ControlReply CampaignManager::RunOn(const Client& client, services::SerialExecutor& thread,
                                    const Patience& patience, std::function<ControlReply()> call) {
  // Only the task owns the promise: one that is dropped breaks it, and so answers at once.
  auto promise = std::make_shared<std::promise<ControlReply>>();
  std::future<ControlReply> reply = promise->get_future();
  const bool posted = thread.Post(
      [promise = std::move(promise), call = std::move(call)] { promise->set_value(call()); });
  if (!posted) return Reply(ControlReply::FAILED, client->name + " has too many calls waiting");
  if (reply.wait_for(patience.wait) != std::future_status::ready) {
    return Reply(ControlReply::FAILED,
                 client->name + " has not answered in time" + patience.too_late);
  }
  try {
    return reply.get();
  } catch (const std::future_error&) {
    return Reply(ControlReply::FAILED, client->name + " has gone");
  }
}

ControlReply CampaignManager::Change(const Client& client, std::function<ControlReply()> call) {
  return RunOn(client, client->calls(), {timing_.answer, "; it may still do what was asked"},
               std::move(call));
}

ControlReply CampaignManager::StartCampaign(const std::string& name,
                                            const SavedCampaign& campaign) {
  const Client client = Find(name);
  if (client == nullptr) return NotThere(name);
  if (!FitsTransaction(campaign)) {
    return Reply(ControlReply::REFUSED, "the campaign is too large for one transaction (1 MiB)");
  }
  SavedCampaign fresh = campaign;
  fresh.clear_stopped_lic_sns();
  fresh.clear_early_deaths();
  return Change(client, [this, raw = client.get(), fresh] { return Start(raw, fresh); });
}

ControlReply CampaignManager::ReleaseCampaign(const std::string& name) {
  bool released = false;
  SavedCampaign saved;
  const bool kept = store_->ChangeCampaign(name, [&](SavedCampaign* campaign) {
    released = InQuarantine(*campaign);
    if (released) campaign->set_early_deaths(0);
    saved = *campaign;
    return released;
  });
  if (!released) {
    return store_->Knows(name)
               ? Reply(ControlReply::REFUSED, "no campaign of " + name + " is in quarantine")
               : NotThere(name);
  }
  if (!kept) return NotSaved();
  LOGI("client %s: campaign %" PRId64 " is released", name.c_str(), saved.camp_id());
  const Client client = Find(name);
  if (client == nullptr) return Reply(ControlReply::DONE, "it starts when " + name + " returns");
  return Change(client, [this, raw = client.get(), saved] { return GiveBack(raw, saved); });
}

ControlReply CampaignManager::StopCampaign(const std::string& name) {
  const Client client = Find(name);
  if (client != nullptr) return Change(client, [this, raw = client.get()] { return Stop(raw); });
  SavedCampaign saved;
  if (!store_->GetCampaign(name, &saved)) {
    return store_->Knows(name) ? Reply(ControlReply::REFUSED, "no campaign runs on " + name)
                               : NotThere(name);
  }
  if (!store_->ClearCampaign(name)) return NotSaved();
  return Reply(ControlReply::DONE, name + " is not connected; its campaign will not start again");
}

ControlReply CampaignManager::ForgetClient(const std::string& name, bool force) {
  Client client;
  {
    MutexLock lock(mutex_);
    client = FindLocked(name);
    if (client != nullptr && !force) {
      return Reply(ControlReply::REFUSED,
                   name + " is connected; end its daemon first, or give --force");
    }
    if (!store_->Knows(name)) return NotThere(name);
    if (!store_->Forget(name)) return NotSaved();
    if (client != nullptr) Displace(client);
  }
  if (client != nullptr) IInterface::asBinder(client->callback)->unlinkToDeath(client->death);
  LOGI("client %s is forgotten", name.c_str());
  return Reply(ControlReply::DONE, "");
}

ControlReply CampaignManager::SetLicSn(const std::string& name, int64_t lic_sn, bool run) {
  const Client client = Find(name);
  if (client == nullptr) return NotThere(name);
  return Change(client,
                [this, raw = client.get(), lic_sn, run] { return SwitchLicSn(raw, lic_sn, run); });
}

ControlReply CampaignManager::DumpClient(const std::string& name) {
  const Client client = Find(name);
  if (client == nullptr) return NotThere(name);
  return RunOn(client, client->questions(), {timing_.dump, ": its process hangs"},
               [this, raw = client.get()] { return Dump(raw); });
}

bool CampaignManager::StopBy(std::chrono::steady_clock::time_point deadline) {
  std::vector<Client> clients;
  {
    MutexLock lock(mutex_);
    for (const auto& [token, client] : by_token_) clients.push_back(client);
    clients.insert(clients.end(), retired_.begin(), retired_.end());
  }
  for (const Client& client : clients) client->StopCalls();
  return std::all_of(clients.begin(), clients.end(),
                     [&](const Client& client) { return client->CallsStoppedBy(deadline); });
}

}  // namespace orb::manager
