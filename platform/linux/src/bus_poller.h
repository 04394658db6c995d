// Tells the reader thread when the bus's socket is ready.
#pragma once

#include <cstdint>

#include "utility/unique_fd.h"

namespace orb_platform {

// Wait: the reader thread, unlocked. Wake: any thread. The rest: under the bus's lock.
class BusPoller {
 public:
  // Makes the descriptors unless they exist. False when the process has none left; then
  // nothing else may be called.
  bool Open();

  // False when the socket cannot be waited for.
  bool Attach(int bus_fd);
  void Detach();
  // `events`: the poll(2) events that the binding waits for. Takes effect at once.
  void Watch(int events);

  // Returns when the socket is ready, after Wake(), or after timeout_ms (< 0: never).
  void Wait(int timeout_ms);
  void Wake();

 private:
  orb::UniqueFd epoll_;
  orb::UniqueFd wake_;  // eventfd
  int bus_fd_ = -1;
  int events_ = 0;
};

}  // namespace orb_platform
