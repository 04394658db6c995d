// Tested by tests/orbctl/campaign_lint_test.cpp.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "tools/orbctl/campaign_file.h"
#include "tools/orbctl/campaign_lint.h"
#include "tools/orbctl/output.h"
#include "utility/error_text.h"

namespace orb::orbctl {
namespace {

const char* NameOf(Severity severity) {
  switch (severity) {
    case Severity::kRefused:
      return "refused";
    case Severity::kFatal:
      return "fatal";
    case Severity::kWarning:
      break;
  }
  return "warning";
}

struct Counts {
  explicit Counts(const std::vector<LintFinding>& findings) {
    for (const LintFinding& finding : findings) {
      ++(finding.severity == Severity::kRefused ? refused
         : finding.severity == Severity::kFatal ? fatal
                                                : warnings);
    }
  }

  size_t refused = 0, fatal = 0, warnings = 0;
};

void PrintText(const std::string& path, const std::vector<LintFinding>& findings,
               std::ostream& out) {
  for (const LintFinding& finding : findings) {
    out << fmt::format("{}: {}: {} [{}]\n", NameOf(finding.severity), finding.entry,
                       finding.message, finding.rule);
  }
  const Counts counts(findings);
  const char* const verdict = counts.refused > 0 ? "a session would not start"
                              : counts.fatal > 0 ? "a session would end its client"
                                                 : "a session would start";
  out << fmt::format("{}: {} ({} refused, {} fatal, {} warnings)\n", path, verdict, counts.refused,
                     counts.fatal, counts.warnings);
}

void PrintJson(const std::string& path, const std::vector<LintFinding>& findings,
               std::ostream& out) {
  nlohmann::ordered_json report;
  report["file"] = path;
  report["accepted"] = Counts(findings).refused == 0;
  report["findings"] = nlohmann::ordered_json::array();
  for (const LintFinding& finding : findings) {
    report["findings"].push_back({{"severity", NameOf(finding.severity)},
                                  {"entry", finding.entry},
                                  {"rule", finding.rule},
                                  {"message", finding.message}});
  }
  out << report.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

// Adds what is not there yet: the first word counts. False with *error.
bool AddValueLimits(const std::vector<std::string>& texts, std::map<uint32_t, ValueLimit>* values,
                    std::string* error) {
  for (const std::string& text : texts) {
    uint32_t kpi_id = 0;
    ValueLimit limit;
    if (!ParseValueLimit(text, &kpi_id, &limit, error)) return false;
    values->emplace(kpi_id, limit);
  }
  return true;
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
  // Ahead of the file's notes, so that the command line has the last word.
  std::map<uint32_t, ValueLimit> values;
  if (!AddValueLimits(max_values, &values, &error)) {
    PrintError("--" + error);
    return kUsage;
  }
  Conf conf;
  if (!conf_path.empty() && !Conf::ReadFile(conf_path, &conf)) {
    return Fail(fmt::format("{}: {}", conf_path, ErrorText(errno)));
  }
  LTCCampaignDef campaign;
  std::vector<std::string> notes;
  if (!ReadCampaignFile(path, &campaign, &error, &notes)) return Fail(error);
  if (!AddValueLimits(notes, &values, &error)) return Fail(path + ": " + error);
  const std::vector<LintFinding> findings = LintCampaign(
      {campaign, conf, std::move(options), allow_plain, shared_memory, std::move(values)});
  if (json) {
    PrintJson(path, findings, out);
  } else {
    PrintText(path, findings, out);
  }
  const Counts counts(findings);
  return counts.refused + counts.fatal == 0 ? kOk : kFailed;
}

}  // namespace orb::orbctl
