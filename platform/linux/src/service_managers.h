// The service manager that the process uses; by default it asks the bus.
#pragma once

#include <binder/IServiceManager.h>

#include <string>

namespace orb_platform {

// Whether setDefaultServiceManager() has set one.
bool HasExplicitServiceManager();

// 1 to 127 characters of [A-Za-z0-9_-./].
bool IsServiceName(const std::string& name);
// The service's bus name: a prefix, then the name with everything but letters and inner
// digits written as _XX in lower-case hex. A hash replaces the tail of a name that would
// be too long.
std::string BusNameOf(const std::string& service);
// The service of a bus name; empty when the name is no service's, or has a hash.
std::string ServiceOf(const std::string& bus_name);

// Calls checkService every 50 ms until it finds one or `timeout_ms` (< 0: none) passed.
android::sp<android::IBinder> PollForService(const android::IServiceManager& manager,
                                             const android::String16& name, int timeout_ms);

}  // namespace orb_platform
