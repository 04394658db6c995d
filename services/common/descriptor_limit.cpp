// Tested by tests/services/descriptor_limit_test.cpp.
#include "services/common/descriptor_limit.h"

#include <sys/resource.h>

#include <algorithm>

namespace orb::services {
namespace {

constexpr rlim_t kSharesOfAll = 8;
// What Linux gives a process unless it is told otherwise.
constexpr rlim_t kUsual = 1024;

rlimit Limit() {
  rlimit limit{kUsual, kUsual};
  static_cast<void>(getrlimit(RLIMIT_NOFILE, &limit));
  return limit;
}

}  // namespace

size_t RaiseDescriptorLimit() {
  rlimit limit = Limit();
  const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, kMostDescriptors);
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    // A system call filter may forbid it; then the lower limit holds.
    static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
  }
  return static_cast<size_t>(Limit().rlim_cur);
}

size_t DescriptorsForClients() {
  return static_cast<size_t>(std::min<rlim_t>(Limit().rlim_cur, kMostDescriptors) / kSharesOfAll);
}

}  // namespace orb::services
