// The checks of one KPI of a campaign, by itself.
#pragma once

#include <functional>
#include <string>

#include "proto/ltc_campaign.pb.h"
#include "tools/orbctl/campaign_lint.h"
#include "utility/conf.h"

namespace orb::orbctl {

// Takes what is found: how bad it is, the rule, the message.
using LintReport =
    std::function<void(Severity severity, const std::string& rule, const std::string& message)>;

// `limit` is what the client logs; null when that is not known.
void LintKpi(const KPICfg& cfg, const Conf& conf, const ValueLimit* limit,
             const LintReport& report);

}  // namespace orb::orbctl
