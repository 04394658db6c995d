// Tested by tests/ipc/manager_client_test.cpp and tests/kpi/gauge_test.cpp.
#include "utility/quiet_write.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "utility/check.h"

namespace orb {

PipeSignalHeld::PipeSignalHeld() {
  sigemptyset(&pipe_);
  sigaddset(&pipe_, SIGPIPE);
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  was_pending_ = sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
}

PipeSignalHeld::~PipeSignalHeld() {
  const timespec at_once{};
  while (!was_pending_ && sigtimedwait(&pipe_, nullptr, &at_once) == -1 && errno == EINTR) {
  }
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

int QuietWrite(int fd, const std::string& text) {
  const PipeSignalHeld held;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno != EINTR) return errno;
    if (wrote > 0) done += static_cast<size_t>(wrote);
  }
  return 0;
}

LineOffer::LineOffer(int fd) : fd_(fd), kind_(Kind::kPolled) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    dropping_ = true;
  } else if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::kSocket;
  } else if (S_ISREG(status.st_mode)) {
    kind_ = Kind::kFile;
  } else if (S_ISFIFO(status.st_mode) || isatty(fd) == 1) {
    // O_NONBLOCK belongs to the open file, which the host and its children share. So
    // the pipe or terminal is opened once more; where that is forbidden, poll tells.
    char path[32];
    (void)snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    own_.reset(open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own_.ok()) kind_ = Kind::kNonBlocking;
  }
}

bool LineOffer::Add(std::string_view line) {
  ORB_CHECK(line.size() <= sizeof piece_ && line.ends_with('\n'));
  if (piece_bytes_ + line.size() > sizeof piece_) Flush();
  line.copy(piece_ + piece_bytes_, line.size());
  piece_bytes_ += line.size();
  return !dropping_;
}

// A pipe takes up to PIPE_BUF bytes as a whole or not at all, so no line is torn.
void LineOffer::Flush() {
  if (piece_bytes_ != 0 && !dropping_) dropping_ = !Take();
  piece_bytes_ = 0;
}

bool LineOffer::Take() const {
  pollfd ready{fd_, POLLOUT, 0};
  if (kind_ == Kind::kPolled && (poll(&ready, 1, 0) != 1 || (ready.revents & POLLOUT) == 0)) {
    return false;
  }
  ssize_t taken;
  do {
    taken = kind_ == Kind::kSocket ? send(fd_, piece_, piece_bytes_, MSG_DONTWAIT | MSG_NOSIGNAL)
                                   : write(own_.ok() ? own_.get() : fd_, piece_, piece_bytes_);
  } while (taken < 0 && errno == EINTR);
  return taken == static_cast<ssize_t>(piece_bytes_);
}

}  // namespace orb
