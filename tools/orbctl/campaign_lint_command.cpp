// Tested by tests/orbctl/campaign_lint_test.cpp.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_lint.h"
#include "tools/orbctl/output.h"
#include "utility/error_text.h"

namespace orb::orbctl {
namespace {

size_t CountRefused(const std::vector<LintFinding>& findings) {
  return static_cast<size_t>(std::count_if(findings.begin(), findings.end(),
                                           [](const LintFinding& f) { return f.refused; }));
}

void PrintText(const std::string& path, const std::vector<LintFinding>& findings, bool lics_known,
               std::ostream& out) {
  for (const LintFinding& finding : findings) {
    out << fmt::format("{}: {}: {} [{}]\n", finding.refused ? "refused" : "warning", finding.entry,
                       finding.message, finding.rule);
  }
  if (!lics_known) out << "note: without --lic, owners and their keys are not checked\n";
  const size_t refused = CountRefused(findings);
  out << fmt::format("{}: {} ({} refused, {} warnings)\n", path,
                     refused == 0 ? "a session would start" : "a session would not start", refused,
                     findings.size() - refused);
}

void PrintJson(const std::string& path, const std::vector<LintFinding>& findings,
               std::ostream& out) {
  nlohmann::ordered_json report;
  report["file"] = path;
  report["accepted"] = CountRefused(findings) == 0;
  report["findings"] = nlohmann::ordered_json::array();
  for (const LintFinding& finding : findings) {
    report["findings"].push_back({{"severity", finding.refused ? "refused" : "warning"},
                                  {"entry", finding.entry},
                                  {"rule", finding.rule},
                                  {"message", finding.message}});
  }
  out << report.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

}  // namespace

int CampaignLintCommand::Run(std::ostream& out) const {
  std::string error;
  std::vector<LicOption> options(lics.size());
  for (size_t i = 0; i < lics.size(); ++i) {
    if (!ParseLicOption(lics[i], &options[i], &error)) {
      PrintError(error);
      return kUsage;
    }
  }
  Conf conf;
  if (!conf_path.empty() && !Conf::ReadFile(conf_path, &conf)) {
    return Fail(fmt::format("{}: {}", conf_path, ErrorText(errno)));
  }
  LTCCampaignDef campaign;
  if (!ReadCampaignFile(path, &campaign, &error)) return Fail(error);
  LintInput input{campaign, conf, std::nullopt, shared_memory};
  if (!options.empty()) input.lics = std::move(options);
  const std::vector<LintFinding> findings = LintCampaign(input);
  if (json) {
    PrintJson(path, findings, out);
  } else {
    PrintText(path, findings, input.lics.has_value(), out);
  }
  return CountRefused(findings) == 0 ? kOk : kFailed;
}

}  // namespace orb::orbctl
