// A full disk without a disk: while it lives, no file of this process grows
// beyond a size.
#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <cstddef>

namespace orb::test {

class FileSizeLimit {
 public:
  explicit FileSizeLimit(size_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit tight = before_;
    tight.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &tight);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace orb::test
