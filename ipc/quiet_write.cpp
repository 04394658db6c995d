// Tested by tests/ipc/manager_client_test.cpp.
#include "ipc/quiet_write.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

// While it lives, this thread gets no SIGPIPE, and none that it caused later.
// The disposition is the host's and stays.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalHeld() {
    const timespec at_once{};
    while (!was_pending_ && sigtimedwait(&pipe_, nullptr, &at_once) == -1 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;

 private:
  sigset_t pipe_{};
  sigset_t before_{};
  bool was_pending_ = false;
};

}  // namespace

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
