// Asking the manager.
#pragma once

#include <binder/Status.h>

#include <string>

#include "proto/control.pb.h"
#include "utility/result.h"

namespace orb::orbctl {

// A request about one client.
manager::ControlRequest RequestOf(manager::ControlRequest::Call call, const std::string& client);

// Waits for the manager's reply. The error tells what to do when there is no bus or no
// manager, or why the call never came to an answer.
Result<manager::ControlReply> AskManager(const manager::ControlRequest& request);

// Why a call failed that never came to an answer.
std::string CallError(const android::binder::Status& status);

// Prints the manager's reply (`done` when it has no message of its own), as one
// JSON object when asked for. The exit code.
int PrintReply(const Result<manager::ControlReply>& reply, const std::string& done, bool json);

}  // namespace orb::orbctl
