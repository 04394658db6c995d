// The process that made the call which this thread runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace orb_platform {

struct Credentials {
  pid_t pid = -1;
  uid_t uid = static_cast<uid_t>(-1);
};

struct Caller {
  uint64_t connection;  // Number of the connection that it came by.
  std::string name;     // Unique name on the bus.
};

// While it exists, `caller` (borrowed) is the calling thread's caller. Scopes nest.
class CallerScope {
 public:
  explicit CallerScope(const Caller* caller);
  ~CallerScope();
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;

  static const Caller* Current();

 private:
  const Caller* before_;
};

}  // namespace orb_platform
