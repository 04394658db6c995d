// Fixed names of the messages between processes.
#pragma once

#include <systemd/sd-bus.h>

namespace orb_platform {

constexpr char kInterface[] = "org.orb.Binder";
constexpr char kRootPath[] = "/org/orb/binder";
constexpr char kObjectPrefix[] = "/org/orb/binder/";  // Then the id, decimal.
constexpr char kDaemon[] = "org.freedesktop.DBus";
constexpr char kDaemonPath[] = "/org/freedesktop/DBus";
constexpr char kErrorNoObject[] = "org.orb.Binder.Error.NoObject";
constexpr char kErrorNoService[] = "org.orb.Binder.Error.NoService";

// The bus never reuses a name of this form. A name that one peer sends of another must
// have it.
inline bool IsUniqueName(const char* name) {
  return name[0] == ':' && sd_bus_service_name_is_valid(name) > 0;
}

}  // namespace orb_platform
