// The checks of one KPI of a campaign, by itself.
#pragma once

#include <functional>
#include <string>

#include "collector/conf.h"
#include "proto/ltc_campaign.pb.h"

namespace orb::orbctl {

// Takes what is found: refused or a warning, the rule, the message.
using LintReport =
    std::function<void(bool refused, const std::string& rule, const std::string& message)>;

void LintKpi(const KPICfg& cfg, const Conf& conf, const LintReport& report);

}  // namespace orb::orbctl
