// The way to the manager.
#pragma once

#include <string>

#include "services/manager/control/IOrbControl.h"

namespace orb::orbctl {

// Null, with *error telling what to do, when there is no bus or no manager.
android::sp<IOrbControl> ConnectToManager(std::string* error);

// Why a call failed that never came to an answer.
std::string CallError(const android::binder::Status& status);

// Prints the manager's reply (`done` when it has no message of its own), as one
// JSON object when asked for. The exit code.
int PrintReply(const android::binder::Status& status, const ControlReply& reply,
               const std::string& done, bool json);

}  // namespace orb::orbctl
