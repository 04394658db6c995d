// Checks a campaign before it is started: what a session start would refuse,
// and what it would take although nobody can have meant it.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "collector/conf.h"
#include "proto/ltc_campaign.pb.h"
#include "tools/orbctl/lic_option.h"

namespace orb::orbctl {

struct LintFinding {
  bool refused = false;  // Else a warning.
  std::string entry;     // "kpi_cfgs[3] (kpi_id 7)", "threshold_size" and the like.
  std::string rule;      // A fixed word; for limits the configuration file's key.
  std::string message;
};

struct LintInput {
  const LTCCampaignDef& campaign;
  const Conf& conf;  // The device's limits.
  // The owners that the start names; unset when they are not known.
  std::optional<std::vector<LicOption>> lics;
  bool shared_memory = false;  // The client writes to shared-memory slots.
};

// In the order of the campaign.
std::vector<LintFinding> LintCampaign(const LintInput& input);

// The command "campaign lint".
struct CampaignLintCommand {
  std::string path;
  std::string conf_path;          // Empty: the library's defaults.
  std::vector<std::string> lics;  // The --lic options as given.
  bool shared_memory = false;
  bool json = false;

  // Prints the findings to `out`. The exit code: a session would start, it would
  // be refused or a file cannot be read, an option is malformed.
  int Run(std::ostream& out) const;
};

}  // namespace orb::orbctl
