// Tested by tests/orbctl/commands_test.cpp.
#include "tools/orbctl/client_command.h"

#include <fmt/format.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tools/orbctl/control_client.h"
#include "tools/orbctl/output.h"
#include "utility/terminal_text.h"

namespace orb::orbctl {
namespace {

using Json = nlohmann::ordered_json;

const char* SessionName(int32_t session) {
  switch (session) {
    case ClientRecord::NONE:
      return "none";
    case ClientRecord::RUNNING:
      return "running";
    case ClientRecord::WAITING:
      return "waiting";
    case ClientRecord::REFUSED:
      return "refused";
    case ClientRecord::QUARANTINED:
      return "quarantined";
    default:
      return "unknown";
  }
}

// "2025-11-21T09:20:00Z"; "-" for 0.
std::string TimeText(int64_t ms) {
  if (ms == 0) return "-";
  const time_t seconds = ms / 1000;
  tm utc{};
  char text[32];
  if (gmtime_r(&seconds, &utc) == nullptr) return "?";
  static_cast<void>(strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc));
  return text;
}

// The user's name; its number when the system knows none, and "-" when there is no owner.
std::string OwnerText(int64_t uid) {
  if (uid < 0) return "-";
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> text{};
  const int error = getpwuid_r(static_cast<uid_t>(uid), &entry, text.data(), text.size(), &found);
  return error == 0 && found != nullptr ? found->pw_name : std::to_string(uid);
}

std::string CampaignText(const ClientRecord& client) {
  if (client.session == ClientRecord::NONE) return "-";
  std::string text = fmt::format("{} {}", client.campId, SessionName(client.session));
  for (const int64_t lic_sn : client.stoppedLicSNs) {
    text += fmt::format(" -{}", static_cast<uint64_t>(lic_sn));
  }
  return text;
}

std::vector<uint64_t> Unsigned(const std::vector<int64_t>& lic_sns) {
  return {lic_sns.begin(), lic_sns.end()};
}

}  // namespace

std::string ClientTable(const std::vector<ClientRecord>& clients) {
  size_t width = 6;
  for (const ClientRecord& client : clients) width = std::max(width, client.name.size());
  constexpr const char* kRow = "{:<{}}  {:>5}  {:<10}  {:<20}  {:<20}  {}\n";
  std::string table =
      fmt::format(kRow, "CLIENT", width, "ID", "OWNER", "CONNECTED", "SESSION SINCE", "CAMPAIGN");
  for (const ClientRecord& client : clients) {
    table += fmt::format(kRow, TerminalText(client.name), width, client.clientId,
                         OwnerText(client.ownerUid),
                         client.connected ? TimeText(client.connectedSinceMs) : "away",
                         TimeText(client.sessionSinceMs), CampaignText(client));
  }
  return table;
}

std::string ClientJson(const std::vector<ClientRecord>& clients) {
  std::string lines;
  for (const ClientRecord& client : clients) {
    Json object;
    object["name"] = client.name;
    object["id"] = client.clientId;
    object["owner_uid"] = client.ownerUid < 0 ? Json() : Json(client.ownerUid);
    object["owner"] = client.ownerUid < 0 ? Json() : Json(OwnerText(client.ownerUid));
    object["type"] = client.clientType;
    object["option"] = client.clientOption;
    object["connected"] = client.connected;
    object["connected_since_ms"] = client.connectedSinceMs;
    object["session"] = SessionName(client.session);
    object["campaign"] = client.campId;
    object["session_since_ms"] = client.sessionSinceMs;
    object["last_result"] = client.lastResult;
    object["lic_sns"] = Unsigned(client.licSNs);
    object["stopped_lic_sns"] = Unsigned(client.stoppedLicSNs);
    lines += object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
  }
  return lines;
}

int ListClients(bool all, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  std::vector<ClientRecord> known;
  const android::binder::Status status = manager->listClients(&known);
  if (!status.isOk()) return Fail(CallError(status));
  std::vector<ClientRecord> clients;
  std::copy_if(known.begin(), known.end(), std::back_inserter(clients),
               [&](const ClientRecord& client) {
                 return all || client.connected || client.session == ClientRecord::QUARANTINED;
               });
  const std::string text = json ? ClientJson(clients) : ClientTable(clients);
  static_cast<void>(fwrite(text.data(), 1, text.size(), stdout));
  return kOk;
}

int ForgetClient(const std::string& client, bool force, bool json) {
  std::string error;
  const android::sp<IOrbControl> manager = ConnectToManager(&error);
  if (manager == nullptr) return Fail(error);
  ControlReply reply;
  const android::binder::Status status = manager->forgetClient(client, force, &reply);
  return PrintReply(status, reply, "forgotten", json);
}

}  // namespace orb::orbctl
