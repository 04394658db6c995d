// usage: orb_soak [--seconds N] [--seed N] [--list] [SCENARIO...]
//
// Runs the scenarios, all of them unless some are named, one after the other,
// each for so many seconds. Exit 1 when one failed; what it left is copied to
// soak-SCENARIO in the working directory, or soak-SCENARIO.2 and so on where that
// exists already, so that any number of runs may be under way at once. Scenarios with a full disk
// take this process into a mount namespace of its own; exit 77 when none could run here.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/faults/world.h"
#include "tests/support/mount_namespace.h"

namespace orb::test {
namespace {

constexpr int kUsage = 2;
constexpr int kSkipped = 77;

struct Options {
  int seconds = 120;
  uint64_t seed = 1;
  bool list = false;
  std::vector<const Scenario*> scenarios;
};

bool Parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--list") {
      options->list = true;
    } else if (argument == "--seconds" && i + 1 < argc) {
      options->seconds = atoi(argv[++i]);
    } else if (argument == "--seed" && i + 1 < argc) {
      options->seed = strtoull(argv[++i], nullptr, 10);
    } else {
      const auto& all = Scenarios();
      const auto found = std::find_if(all.begin(), all.end(),
                                      [&](const Scenario& s) { return argument == s.name; });
      if (found == all.end()) {
        fprintf(stderr, "soak: no option or scenario %s; --list names them\n", argv[i]);
        return false;
      }
      options->scenarios.push_back(&*found);
    }
  }
  return true;
}

bool RunOne(const Scenario& scenario, const Options& options) {
  printf("%s: %d s, seed %lu: ", scenario.name, options.seconds, options.seed);
  fflush(stdout);
  World world(scenario, options.seed);
  world.Run(std::chrono::seconds(options.seconds));
  printf("%s: %s\n", world.Summary().c_str(), world.failures().empty() ? "ok" : "FAILED");
  for (const std::string& failure : world.failures()) printf("  %s\n", failure.c_str());
  if (!world.failures().empty()) {
    printf("  logs and files are in %s\n", world.Keep().c_str());
  }
  fflush(stdout);
  return world.failures().empty();
}

int RunScenario(const Scenario& scenario, const Options& options) {
  if (scenario.Is(kMounts) && !EnterMountNamespace()) {
    printf("%s: skipped: no mount namespace here (root, or user namespaces)\n", scenario.name);
    return kSkipped;
  }
  return RunOne(scenario, options) ? 0 : 1;
}

int Main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, &options)) return kUsage;
  if (options.list) {
    for (const Scenario& s : Scenarios()) printf("%-20s %s\n", s.name, s.does);
    return 0;
  }
  if (options.scenarios.empty()) {
    for (const Scenario& s : Scenarios()) options.scenarios.push_back(&s);
  }
  // A disk that others keep busy would set the pace: every record is synchronised.
  if (std::filesystem::is_directory("/dev/shm")) setenv("TMPDIR", "/dev/shm", 0);
  size_t skipped = 0;
  size_t failed = 0;
  for (const Scenario* scenario : options.scenarios) {
    const int code = RunScenario(*scenario, options);
    skipped += code == kSkipped ? 1 : 0;
    failed += code != 0 && code != kSkipped ? 1 : 0;
  }
  if (failed == 0 && skipped == options.scenarios.size()) return kSkipped;
  return failed == 0 ? 0 : 1;
}

}  // namespace
}  // namespace orb::test

int main(int argc, char** argv) { return orb::test::Main(argc, argv); }
