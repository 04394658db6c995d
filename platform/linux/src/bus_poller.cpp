// Two epoll sets hold the socket; at most one has events enabled. Changing the
// mask of a set that a thread waits on takes effect without waking it.
// Tested by tests/platform/contract_test.cpp.
#include "platform/linux/src/bus_poller.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace orb_platform {

namespace {

void Signal(int fd) {
  if (fd < 0) return;
  const int saved = errno;
  const uint64_t one = 1;
  while (write(fd, &one, sizeof one) < 0 && errno == EINTR) {
  }
  errno = saved;
}

void Drain(int fd) {
  uint64_t count;
  while (read(fd, &count, sizeof count) < 0 && errno == EINTR) {
  }
}

bool Add(int epoll_fd, int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

uint32_t EpollMask(int events) {
  return ((events & POLLIN) != 0 ? static_cast<uint32_t>(EPOLLIN) : 0u) |
         ((events & POLLOUT) != 0 ? static_cast<uint32_t>(EPOLLOUT) : 0u);
}

}  // namespace

// All or nothing.
bool BusPoller::Open() {
  if (wake_caller_.ok()) return true;
  orb::UniqueFd reader(epoll_create1(EPOLL_CLOEXEC));
  orb::UniqueFd seat(epoll_create1(EPOLL_CLOEXEC));
  orb::UniqueFd wake_reader(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  orb::UniqueFd wake_seat(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  orb::UniqueFd wake_caller(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_caller.ok() || !Add(reader.get(), wake_reader.get(), EPOLLIN) ||
      !Add(seat.get(), wake_seat.get(), EPOLLIN)) {
    return false;
  }
  reader_ = std::move(reader);
  seat_ = std::move(seat);
  wake_reader_ = std::move(wake_reader);
  wake_seat_ = std::move(wake_seat);
  seat_signal_.store(wake_seat_.get());
  wake_caller_ = std::move(wake_caller);
  return true;
}

bool BusPoller::Attach(int bus_fd) {
  fd_ = bus_fd;
  reader_events_ = seat_events_ = 0;
  return Add(reader_.get(), bus_fd, 0) && Add(seat_.get(), bus_fd, 0);
}

void BusPoller::Detach() {
  if (fd_ < 0) return;
  epoll_ctl(reader_.get(), EPOLL_CTL_DEL, fd_, nullptr);
  epoll_ctl(seat_.get(), EPOLL_CTL_DEL, fd_, nullptr);
  fd_ = -1;
}

void BusPoller::Apply(int epoll_fd, uint32_t* current, uint32_t wanted) {
  if (*current == wanted) return;
  *current = wanted;
  epoll_event event{};
  event.events = wanted;
  event.data.fd = fd_;
  epoll_ctl(epoll_fd, EPOLL_CTL_MOD, fd_, &event);
}

void BusPoller::Set(Turn turn, int events, bool seated) {
  if (fd_ < 0) return;
  const uint32_t mask = EpollMask(events);
  Apply(reader_.get(), &reader_events_, turn == Turn::kReader ? mask : 0);
  // An empty seat's mask wakes nobody; mostly it is right again for the next who sits.
  if (seated) Apply(seat_.get(), &seat_events_, turn == Turn::kSeat ? mask : 0);
  if (turn == Turn::kCaller && events != caller_events_) {
    caller_events_ = events;
    WakeCaller();
  }
}

void BusPoller::WaitReader(int timeout_ms) {
  epoll_event event;
  const int count = epoll_wait(reader_.get(), &event, 1, timeout_ms);
  if (count > 0 && event.data.fd == wake_reader_.get()) Drain(wake_reader_.get());
}

bool BusPoller::WaitSeat() {
  epoll_event events[2];
  const int count = epoll_wait(seat_.get(), events, 2, -1);
  for (int i = 0; i < count; i++) {
    if (events[i].data.fd != wake_seat_.get()) continue;
    Drain(wake_seat_.get());
    return false;
  }
  return true;
}

void BusPoller::WaitCaller(int bus_fd, int wake_fd, int events, int timeout_ms) {
  pollfd fds[2] = {{bus_fd, static_cast<short>(events), 0}, {wake_fd, POLLIN, 0}};
  if (poll(fds, 2, timeout_ms) > 0 && fds[1].revents != 0) Drain(wake_fd);
}

void BusPoller::WakeReader() { Signal(wake_reader_.get()); }
void BusPoller::WakeSeat() { Signal(seat_signal_.load()); }
void BusPoller::WakeCaller() { Signal(wake_caller_.get()); }

}  // namespace orb_platform
