// orbctl sim: a campaign on the real library, without daemons and without a bus.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace orb::orbctl {

struct SimCommand {
  std::string campaign_path;
  std::string client = "client";
  std::string load_path;
  std::vector<std::string> faults;
  std::string directory;               // Made, or empty.
  std::string speed = "max";           // Or a factor.
  int64_t id = 1;                      // Of the campaign.
  std::vector<std::string> lics;       // The --lic options as given.
  bool allow_plain = false;            // A key may be given that seals nothing.
  std::vector<std::string> key_paths;  // Private keys, to count what is sealed.
  std::string conf_path;               // Empty: the library's defaults.
  std::string slots;                   // COUNTxBYTES; empty: data files.
  bool json = false;

  // Prints the report to `out`. The exit code; losses are no failure.
  int Run(std::ostream& out) const;
};

// Adds the command; *code is the exit code once it ran.
void AddSim(CLI::App* app, SimCommand* command, int* code);

}  // namespace orb::orbctl
