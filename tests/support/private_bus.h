// A dbus-daemon of a test's own, on a unix socket in a temporary directory.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "tests/support/child_process.h"

namespace orb::test {

// Not thread-safe. Aborts when no daemon can be started at all.
class PrivateBus {
 public:
  // Starts the daemon and waits until it listens. It has the limits of a stock
  // system bus but for those given, as elements of its configuration.
  explicit PrivateBus(const std::string& limits = "") {
    // Everybody may own and call everything; no activation.
    const std::string configuration =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig><type>session</type><listen>" +
        address() +
        "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow "
        "own=\"*\"/>"
        "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
        "</policy>" +
        limits + "</busconfig>\n";
    if (!WriteFile(dir_.path() + "/bus.conf", configuration)) abort();
    Start();
  }

  // For ORB_BUS_ADDRESS; stays the same over restarts.
  std::string address() const { return "unix:path=" + socket_path(); }
  const std::string& directory() const { return dir_.path(); }
  // Makes this process use the bus from its next connection on.
  void SetEnvironment() const { setenv("ORB_BUS_ADDRESS", address().c_str(), 1); }

  // Kills the daemon as a crash would; every connection breaks.
  void Kill() {
    daemon_.Signal(SIGKILL);
    daemon_.Wait(std::chrono::seconds(5));
    unlink(socket_path().c_str());
  }
  // Starts it again on the same address.
  void Start() {
    daemon_ = ChildProcess({"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                            "--config-file=" + dir_.path() + "/bus.conf"},
                           {{}, dir_.path() + "/bus.log"});
    // It prints its address once it listens.
    if (!daemon_.ReadLine(std::chrono::seconds(20)).has_value()) abort();
  }

 private:
  std::string socket_path() const { return dir_.path() + "/bus"; }

  TempDir dir_;
  ChildProcess daemon_;
};

}  // namespace orb::test
