// Tested by tests/platform/hostile_peer_test.cpp.
#include "platform/linux/src/call_budget.h"

#include "utility/checked.h"

namespace orb_platform {

namespace {

CallBudget::Cost Sum(const CallBudget::Cost& a, const CallBudget::Cost& b) {
  return {orb::CheckedAdd<size_t>(a.bytes, b.bytes),
          orb::CheckedAdd<size_t>(a.descriptors, b.descriptors)};
}

CallBudget::Cost Difference(const CallBudget::Cost& a, const CallBudget::Cost& b) {
  return {orb::CheckedSub<size_t>(a.bytes, b.bytes),
          orb::CheckedSub<size_t>(a.descriptors, b.descriptors)};
}

}  // namespace

bool CallBudget::Fits(const Cost& own, const Cost& cost) const {
  const Cost mine = Sum(own, cost);
  if (mine.bytes > kMostBytesOfOne || mine.descriptors > kMostDescriptorsOfOne) return false;
  const bool little = mine.bytes <= kLittleBytes && mine.descriptors <= kLittleDescriptors;
  const auto most = [little](size_t all) { return little ? all : all - all / kReservedShare; };
  const Cost total = Sum(held_, cost);
  return total.bytes <= most(kMostBytes) && total.descriptors <= most(most_descriptors_);
}

bool CallBudget::Take(const std::string& sender, const Cost& cost) {
  const auto known = senders_.find(sender);
  const Cost own = known != senders_.end() ? known->second : Cost{};
  if (!Fits(own, cost)) return false;
  senders_[sender] = Sum(own, cost);
  held_ = Sum(held_, cost);
  return true;
}

void CallBudget::Give(const std::string& sender, const Cost& cost) {
  const auto own = senders_.find(sender);
  own->second = Difference(own->second, cost);
  held_ = Difference(held_, cost);
  if (own->second.bytes == 0 && own->second.descriptors == 0) senders_.erase(own);
}

}  // namespace orb_platform
