// A dbus-daemon of a test's own, on a unix socket in a temporary directory.
#pragma once

#include <string>

#include "tests/support/child_process.h"

namespace orb::test {

// Not thread-safe. Aborts when no daemon can be started at all.
class PrivateBus {
 public:
  // Starts the daemon and waits until it listens.
  PrivateBus();
  ~PrivateBus();

  // For ORB_BUS_ADDRESS; stays the same over restarts.
  std::string address() const { return "unix:path=" + socket_path(); }
  // Makes this process use the bus from its next connection on.
  void SetEnvironment() const;

  // Kills the daemon as a crash would; every connection breaks.
  void Kill();
  // Starts it again on the same address.
  void Start();

 private:
  std::string socket_path() const { return dir_.path() + "/bus"; }

  TempDir dir_;
  ChildProcess daemon_;
};

}  // namespace orb::test
