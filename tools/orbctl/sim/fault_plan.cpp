// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/fault_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "tools/orbctl/number.h"

namespace orb::orbctl {
namespace {

struct Name {
  std::string_view text;
  Fault fault;
};
constexpr std::array kNames = {
    Name{"hal-slow", Fault::kHalSlow},   Name{"hal-dead", Fault::kHalDead},
    Name{"hal-wrong", Fault::kHalWrong}, Name{"manager-dead", Fault::kManagerDead},
    Name{"enospc", Fault::kDiskFull},
};

bool ParseSpan(std::string_view text, FaultSpan* span) {
  const size_t dots = text.find("..");
  if (!ParseDuration(text.substr(0, dots), &span->from)) return false;
  if (dots == text.npos) return true;
  span->to.emplace();
  return ParseDuration(text.substr(dots + 2), &*span->to) && *span->to > span->from;
}

// Why the text is no fault, or null.
const char* ParseFault(std::string_view text, FaultSpan* span) {
  span->text = text;
  const size_t at = text.find('@');
  const size_t equals = text.substr(0, at).find('=');
  const std::string_view name = text.substr(0, std::min(at, equals));
  const Name* known = nullptr;
  for (const Name& candidate : kNames) {
    if (candidate.text == name) known = &candidate;
  }
  if (known == nullptr) {
    return "the faults are hal-slow=DURATION, hal-dead, hal-wrong, manager-dead and enospc";
  }
  span->fault = known->fault;
  const bool slow = known->fault == Fault::kHalSlow;
  if (slow != (equals != text.npos)) {
    return slow ? "say how slow, like hal-slow=200ms" : "only hal-slow takes a duration";
  }
  if (slow && !ParseDuration(text.substr(equals + 1, at == text.npos ? at : at - equals - 1),
                             &span->delay)) {
    return "a duration is a number and ms, s, m or h";
  }
  if (at != text.npos && !ParseSpan(text.substr(at + 1), span)) {
    return "write @T or @FROM..TO, times with ms, s, m or h, FROM before TO";
  }
  return nullptr;
}

bool Overlap(const FaultSpan& a, const FaultSpan& b) {
  if (a.fault != b.fault) return false;
  return (!a.to || b.from < *a.to) && (!b.to || a.from < *b.to);
}

}  // namespace

bool ParseFaults(const std::vector<std::string>& options, std::vector<FaultSpan>* spans,
                 std::string* error) {
  for (const std::string& option : options) {
    std::string_view rest = option;
    for (bool more = true; more;) {
      const size_t comma = rest.find(',');
      FaultSpan span;
      if (const char* reason = ParseFault(rest.substr(0, comma), &span)) {
        *error = fmt::format("--fault {}: {}", span.text, reason);
        return false;
      }
      for (const FaultSpan& other : *spans) {
        if (!Overlap(span, other)) continue;
        *error = fmt::format("--fault {} and {} overlap; give each an end, like @2s..4s",
                             other.text, span.text);
        return false;
      }
      spans->push_back(std::move(span));
      more = comma != rest.npos;
      if (more) rest.remove_prefix(comma + 1);
    }
  }
  return true;
}

}  // namespace orb::orbctl
