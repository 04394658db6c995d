// orbctl client list|forget.
#pragma once

#include <string>
#include <vector>

#include "proto/control.pb.h"

namespace orb::orbctl {

// A table; times in UTC.
std::string ClientTable(const std::vector<manager::ClientRecord>& clients);
// One object a line, in ASCII.
std::string ClientJson(const std::vector<manager::ClientRecord>& clients);

// `all` also shows clients that are away. The exit code.
int ListClients(bool all, bool json);
// `force` also takes one that is connected. The exit code.
int ForgetClient(const std::string& client, bool force, bool json);

}  // namespace orb::orbctl
