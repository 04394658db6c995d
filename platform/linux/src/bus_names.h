// Fixed names of the messages between processes.
#pragma once

namespace orb_platform {

constexpr char kInterface[] = "org.orb.Binder";
constexpr char kRootPath[] = "/org/orb/binder";
constexpr char kObjectPrefix[] = "/org/orb/binder/";  // Then the id, decimal.
constexpr char kDaemon[] = "org.freedesktop.DBus";
constexpr char kDaemonPath[] = "/org/freedesktop/DBus";
constexpr char kErrorNoObject[] = "org.orb.Binder.Error.NoObject";
constexpr char kErrorNoService[] = "org.orb.Binder.Error.NoService";

}  // namespace orb_platform
