// Checks a campaign before it is started: what a session start would refuse,
// and what it would take although nobody can have meant it.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "proto/ltc_campaign.pb.h"
#include "tools/orbctl/lic_option.h"
#include "tools/orbctl/value_limit.h"
#include "utility/conf.h"

namespace orb::orbctl {

enum class Severity {
  kRefused,  // No session would start, or `campaign start` would not ask for one.
  kFatal,    // One would, and its samples would end the client.
  kWarning,
};

struct LintFinding {
  Severity severity = Severity::kWarning;
  std::string entry;  // "kpi_cfgs[3] (kpi_id 7)", "threshold_size" and the like.
  std::string rule;   // A fixed word; for limits the configuration file's key.
  std::string message;
};

struct LintInput {
  const LTCCampaignDef& campaign;
  const Conf& conf;                         // The device's limits.
  std::vector<LicOption> lics{};            // As the start is given them.
  bool allow_plain = false;                 // As there.
  bool shared_memory = false;               // The client writes to shared-memory slots.
  std::map<uint32_t, ValueLimit> values{};  // By KPI id: what its client logs, where that is known.
};

// In the order of the campaign.
std::vector<LintFinding> LintCampaign(const LintInput& input);

// The command "campaign lint".
struct CampaignLintCommand {
  std::string path;
  std::string conf_path;                // Empty: the library's defaults.
  std::vector<std::string> lics;        // The --lic options as given.
  bool allow_plain = false;             // A key may be given that seals nothing.
  std::vector<std::string> max_values;  // The --max-value options as given.
  bool shared_memory = false;
  bool json = false;

  // Prints the findings to `out`. The exit code: a session would start and last, it
  // would not or a file cannot be read, an option is malformed.
  int Run(std::ostream& out) const;
};

}  // namespace orb::orbctl
