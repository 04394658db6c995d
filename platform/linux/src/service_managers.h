// Which service manager the process uses, and the one of the bus.
#pragma once

#include <binder/IServiceManager.h>

#include <string>

namespace orb_platform {

// Whether setDefaultServiceManager set one.
bool HasExplicitServiceManager();

// 1 to 127 characters of [A-Za-z0-9_-./].
bool IsServiceName(const std::string& name);
// The bus name that stands for the service: a prefix, then the name with
// everything but letters and inner digits as _XX in lower-case hex; the tail of
// one that would be too long is replaced by a hash.
std::string BusNameOf(const std::string& service);
// The service that a bus name stands for; empty when it stands for none, or is hashed.
std::string ServiceOf(const std::string& bus_name);

// checkService every 50 ms until there is one, or `timeout_ms` (< 0: none) passed.
android::sp<android::IBinder> PollForService(const android::IServiceManager& manager,
                                             const android::String16& name, int timeout_ms);

}  // namespace orb_platform
