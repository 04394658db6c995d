// What operators are told of clients and their campaigns.
#pragma once

#include <cstdint>
#include <string>

#include "proto/control.pb.h"
#include "proto/manager_state.pb.h"
#include "services/manager/registered_client.h"

namespace orb::manager {

// Deaths in a row, each within CampaignManager::Timing::early_death of a start, after
// which a client is not given its campaign again.
inline constexpr int32_t kEarlyDeathsMax = 3;

inline bool InQuarantine(const SavedCampaign& saved) {
  return saved.early_deaths() >= kEarlyDeathsMax;
}

// `client` is null while it is away.
ClientRecord RecordOf(const ClientState& state, const RegisteredClient* client);

ControlReply Reply(ControlReply::Status status, const std::string& message, int32_t result = 0);
ControlReply NotSaved();

// Wall clock, milliseconds since the epoch.
int64_t NowMs();

}  // namespace orb::manager
