// Between the three forms of a campaign: as a client gets it, as the disk keeps
// it, and as operators see it.
#pragma once

#include <cstdint>
#include <string>

#include "ipc/KIVCampConfig.h"
#include "proto/manager_state.pb.h"
#include "services/manager/control/ClientRecord.h"
#include "services/manager/control/ControlReply.h"
#include "services/manager/registered_client.h"

namespace orb::manager {

SavedCampaign ToSaved(const KIVCampConfig& config);
KIVCampConfig ToConfig(const SavedCampaign& saved);

// `client` is null while it is away.
ClientRecord RecordOf(const ClientState& state, const RegisteredClient* client);

ControlReply Reply(ControlReply::Status status, const std::string& message, int32_t result = 0);
ControlReply NotSaved();

// Wall clock, milliseconds since the epoch.
int64_t NowMs();

}  // namespace orb::manager
