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
using manager::ClientRecord;

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

// The owner's name; its number when the system knows none, and "-" when there is no owner.
std::string OwnerText(const ClientRecord& client) {
  if (!client.has_owner_uid()) return "-";
  const uid_t uid = client.owner_uid();
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> text{};
  const int error = getpwuid_r(uid, &entry, text.data(), text.size(), &found);
  return error == 0 && found != nullptr ? found->pw_name : std::to_string(uid);
}

std::string CampaignText(const ClientRecord& client) {
  if (client.session() == ClientRecord::NONE) return "-";
  std::string text = fmt::format("{} {}", client.camp_id(), SessionName(client.session()));
  for (const int64_t lic_sn : client.stopped_lic_sns()) {
    text += fmt::format(" -{}", static_cast<uint64_t>(lic_sn));
  }
  return text;
}

std::vector<uint64_t> Unsigned(const google::protobuf::RepeatedField<int64_t>& lic_sns) {
  return {lic_sns.begin(), lic_sns.end()};
}

}  // namespace

std::string ClientTable(const std::vector<ClientRecord>& clients) {
  size_t width = 6;
  for (const ClientRecord& client : clients) width = std::max(width, client.name().size());
  constexpr const char* kRow = "{:<{}}  {:>5}  {:<10}  {:<20}  {:<20}  {}\n";
  std::string table =
      fmt::format(kRow, "CLIENT", width, "ID", "OWNER", "CONNECTED", "SESSION SINCE", "CAMPAIGN");
  for (const ClientRecord& client : clients) {
    table +=
        fmt::format(kRow, TerminalText(client.name()), width, client.client_id(), OwnerText(client),
                    client.connected() ? TimeText(client.connected_since_ms()) : "away",
                    TimeText(client.session_since_ms()), CampaignText(client));
  }
  return table;
}

std::string ClientJson(const std::vector<ClientRecord>& clients) {
  std::string lines;
  for (const ClientRecord& client : clients) {
    Json object;
    object["name"] = client.name();
    object["id"] = client.client_id();
    object["owner_uid"] = client.has_owner_uid() ? Json(client.owner_uid()) : Json();
    object["owner"] = client.has_owner_uid() ? Json(OwnerText(client)) : Json();
    object["type"] = client.client_type();
    object["option"] = client.client_option();
    object["connected"] = client.connected();
    object["connected_since_ms"] = client.connected_since_ms();
    object["session"] = SessionName(client.session());
    object["campaign"] = client.camp_id();
    object["session_since_ms"] = client.session_since_ms();
    object["last_result"] = client.last_result();
    object["lic_sns"] = Unsigned(client.lic_sns());
    object["stopped_lic_sns"] = Unsigned(client.stopped_lic_sns());
    lines += object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
  }
  return lines;
}

int ListClients(bool all, bool json) {
  const Result<manager::ControlReply> reply =
      AskManager(RequestOf(manager::ControlRequest::LIST_CLIENTS, ""));
  if (!reply.ok()) return Fail(reply.error().text);
  std::vector<ClientRecord> clients;
  std::copy_if(reply->clients().begin(), reply->clients().end(), std::back_inserter(clients),
               [&](const ClientRecord& client) {
                 return all || client.connected() || client.session() == ClientRecord::QUARANTINED;
               });
  const std::string text = json ? ClientJson(clients) : ClientTable(clients);
  static_cast<void>(fwrite(text.data(), 1, text.size(), stdout));
  return kOk;
}

int ForgetClient(const std::string& client, bool force, bool json) {
  manager::ControlRequest request = RequestOf(manager::ControlRequest::FORGET_CLIENT, client);
  request.set_force(force);
  return PrintReply(AskManager(request), "forgotten", json);
}

}  // namespace orb::orbctl
