// Who makes a call, as the bus attests it.
#pragma once

#include <sys/types.h>

#include <compare>
#include <string>

namespace orb::hal {

// A process. Several collectors of one process share its connection to the HAL
// and take turns, so a process never has two payloads under way.
struct Caller {
  pid_t pid = 0;
  uid_t uid = 0;

  auto operator<=>(const Caller&) const = default;
  std::string ToString() const {
    return "pid " + std::to_string(pid) + " uid " + std::to_string(uid);
  }
};

}  // namespace orb::hal
