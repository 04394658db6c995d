// An epoll set, because its events can be changed while the reader waits on it.
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

bool Control(int epoll_fd, int operation, int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epoll_fd, operation, fd, &event) == 0;
}

}  // namespace

bool BusPoller::Open() {
  if (epoll_.ok()) return true;
  orb::UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
  orb::UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll.ok() || !wake.ok() || !Control(epoll.get(), EPOLL_CTL_ADD, wake.get(), EPOLLIN)) {
    return false;
  }
  epoll_ = std::move(epoll);
  wake_ = std::move(wake);
  return true;
}

bool BusPoller::Attach(int bus_fd) {
  bus_fd_ = bus_fd;
  events_ = 0;
  return Control(epoll_.get(), EPOLL_CTL_ADD, bus_fd, 0);
}

void BusPoller::Detach() {
  if (bus_fd_ >= 0) Control(epoll_.get(), EPOLL_CTL_DEL, bus_fd_, 0);
  bus_fd_ = -1;
}

void BusPoller::Watch(int events) {
  if (bus_fd_ < 0 || events == events_) return;
  events_ = events;
  const uint32_t in = (events & POLLIN) != 0 ? uint32_t{EPOLLIN} : 0;
  const uint32_t out = (events & POLLOUT) != 0 ? uint32_t{EPOLLOUT} : 0;
  Control(epoll_.get(), EPOLL_CTL_MOD, bus_fd_, in | out);
}

void BusPoller::Wait(int timeout_ms) {
  epoll_event event;
  const int count = epoll_wait(epoll_.get(), &event, 1, timeout_ms);
  uint64_t wakes;
  if (count > 0 && event.data.fd == wake_.get()) {
    while (read(wake_.get(), &wakes, sizeof wakes) < 0 && errno == EINTR) {
    }
  }
}

void BusPoller::Wake() {
  const uint64_t one = 1;
  while (write(wake_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

}  // namespace orb_platform
