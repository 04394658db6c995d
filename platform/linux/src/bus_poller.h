// Who is woken when the bus's socket is ready: the reader thread, the worker in
// the seat, or a caller that waits for its reply.
#pragma once

#include <atomic>
#include <cstdint>

#include "utility/unique_fd.h"

namespace orb_platform {

enum class Turn { kReader, kSeat, kCaller };

// Attach to Set and Detach: the caller's lock. The waits: one thread each,
// unlocked. The wakes: any thread, and async-signal-safe.
class BusPoller {
 public:
  // Makes what the rest needs, unless it is there. False when the process is out of
  // descriptors; nothing else may be called then but the wakes.
  bool Open();

  // False when the socket cannot be waited for.
  bool Attach(int bus_fd);
  void Detach();
  // `events` are poll's POLLIN and POLLOUT; `seated`: a worker is in the seat.
  void Set(Turn turn, int events, bool seated);

  // Returns when the socket is ready, when woken, or after timeout_ms (< 0: never).
  void WaitReader(int timeout_ms);
  // False when woken, true when the socket is ready.
  bool WaitSeat();
  // Takes the wake-ups it finds. timeout_ms < 0: none.
  static void WaitCaller(int bus_fd, int wake_fd, int events, int timeout_ms);

  void WakeReader();
  void WakeSeat();
  void WakeCaller();
  int fd() const { return fd_; }
  int caller_fd() const { return wake_caller_.get(); }
  // What the caller last went to wait for.
  int caller_events() const { return caller_events_; }

 private:
  void Apply(int epoll_fd, uint32_t* current, uint32_t wanted);

  orb::UniqueFd reader_;  // epoll sets
  orb::UniqueFd seat_;
  orb::UniqueFd wake_reader_;  // eventfds
  orb::UniqueFd wake_seat_;
  orb::UniqueFd wake_caller_;
  std::atomic<int> seat_signal_{-1};  // wake_seat_, for a wake that comes before Open().
  int fd_ = -1;
  uint32_t reader_events_ = 0;
  uint32_t seat_events_ = 0;
  int caller_events_ = 0;
};

}  // namespace orb_platform
