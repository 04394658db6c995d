// Bytes as a file with a path, without a disk.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_input.h"
#include "utility/unique_fd.h"

namespace orb::fuzz {

class MemoryFile {
 public:
  MemoryFile(const uint8_t* data, size_t size)
      : fd_(memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
    FUZZ_CHECK(fd_.get() >= 0);
    FUZZ_CHECK(size == 0 || write(fd_.get(), data, size) == static_cast<ssize_t>(size));
  }

  // Opens it at its start, as long as this lives.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }
  int fd() const { return fd_.get(); }
  UniqueFd Release() { return std::move(fd_); }

 private:
  UniqueFd fd_;
};

}  // namespace orb::fuzz
