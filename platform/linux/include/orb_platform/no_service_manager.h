// Lets tests act as on a system without a service manager: while an object of this class
// exists, android::defaultServiceManager() waits, as Android's does.
#pragma once

namespace orb_platform {

class NoServiceManager {
 public:
  NoServiceManager();
  // Lets the waiting calls continue.
  ~NoServiceManager();
  NoServiceManager(const NoServiceManager&) = delete;
  NoServiceManager& operator=(const NoServiceManager&) = delete;
};

}  // namespace orb_platform
