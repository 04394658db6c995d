// Tested by tests/orbctl/campaign_lint_test.cpp.
#include "tools/orbctl/value_limit.h"

#include <fmt/format.h>

#include <limits>
#include <string_view>

#include "tools/orbctl/number.h"

namespace orb::orbctl {

bool ParseValueLimit(const std::string& text, uint32_t* kpi_id, ValueLimit* limit,
                     std::string* error) {
  constexpr uint32_t kMax = std::numeric_limits<uint32_t>::max();
  const std::string_view view = text;
  const size_t equals = view.find('=');
  const size_t at = view.find('@');
  uint32_t value = 0;
  *limit = ValueLimit();
  const bool good =
      equals != view.npos && equals < at && ParseAnyNumber(view.substr(0, equals), kMax, kpi_id) &&
      ParseAnyNumber(view.substr(equals + 1, at == view.npos ? at : at - equals - 1), kMax,
                     &value) &&
      (at == view.npos ||
       (ParseDuration(view.substr(at + 1), &limit->interval) && limit->interval.count() > 0));
  limit->value = value;
  if (!good) {
    *error = fmt::format(
        "max-value {}: write KPI=N or KPI=N@INTERVAL, two numbers of up to 32 bits and a time with "
        "ms, s, m or h",
        text);
  }
  return good;
}

}  // namespace orb::orbctl
