// A system on which no service manager runs, for tests: while an object of this
// class exists, android::defaultServiceManager() waits, as Android's does.
#pragma once

namespace orb_platform {

class NoServiceManager {
 public:
  NoServiceManager();
  // The calls that wait go on.
  ~NoServiceManager();
  NoServiceManager(const NoServiceManager&) = delete;
  NoServiceManager& operator=(const NoServiceManager&) = delete;
};

}  // namespace orb_platform
