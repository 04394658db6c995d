// Who made the call that this thread runs.
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
  uint64_t connection;  // Which of this process's connections, counted up.
  std::string name;     // Unique name on the bus.
};

// Sets the calling thread's caller for its life; nests. `caller` is borrowed.
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
