// What every daemon's main does: options, publishing under a name, and ending
// on a signal.
#pragma once

#include <signal.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "utility/result.h"

namespace orb::services {

// Adds --version to the options and parses. -1 to go on, or the exit code: 0
// after --help and --version, 2 for arguments that are wrong.
int ParseCommandLine(CLI::App* app, int argc, char** argv);

// Says on standard error why the service cannot start; its exit code.
int CannotStart(const CLI::App& app, const Error& error);

// Keeps services published until SIGTERM or SIGINT, also over restarts of the
// bus. Make it before the first other thread and the first use of the bus: it blocks
// both signals and raises the limit of descriptors.
class ServiceHost {
 public:
  ServiceHost();

  // `publish` is called without a bus too, and false means to try again. Not
  // after Run.
  void Add(const std::string& name, std::function<bool()> publish,
           std::function<bool()> is_published);

  // Serves until a signal, and keeps systemd informed. The exit code: 1 when a name is taken by
  // another process at the start, else 0.
  int Run();

  // Ends the process without running destructors: threads of the pool may still
  // use what they would destroy, and everything that lasts is on disk.
  [[noreturn]] static void Exit(int code);

 private:
  struct Service {
    std::string name;
    std::function<bool()> publish;
    std::function<bool()> is_published;
    bool reported = false;  // That it is not published; once.
  };

  // Publishes it unless it is; why that failed, else empty.
  std::string Check(Service* service);

  sigset_t signals_;
  std::vector<Service> services_;
};

}  // namespace orb::services
