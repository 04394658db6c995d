#include "tests/support/private_bus.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

namespace orb::test {
namespace {

// Everybody of this user may own and call everything; no activation.
std::string Configuration(const std::string& socket_path) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>unix:path=" +
         socket_path +
         "</listen><auth>EXTERNAL</auth>"
         "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
         "<allow eavesdrop=\"true\"/>"
         "<allow own=\"*\"/></policy></busconfig>\n";
}

}  // namespace

PrivateBus::PrivateBus() {
  if (!WriteFile(dir_.path() + "/bus.conf", Configuration(socket_path()))) abort();
  Start();
}

PrivateBus::~PrivateBus() = default;

void PrivateBus::SetEnvironment() const { setenv("ORB_BUS_ADDRESS", address().c_str(), 1); }

void PrivateBus::Kill() {
  daemon_.Signal(SIGKILL);
  daemon_.Wait(std::chrono::seconds(5));
  unlink(socket_path().c_str());
}

void PrivateBus::Start() {
  daemon_ = ChildProcess({"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                          "--config-file=" + dir_.path() + "/bus.conf"},
                         {{}, dir_.path() + "/bus.log"});
  // It prints its address once it listens.
  if (!daemon_.ReadLine(std::chrono::seconds(20)).has_value()) abort();
}

}  // namespace orb::test
