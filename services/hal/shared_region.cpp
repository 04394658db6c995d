// Tested by tests/services/hal_test.cpp.
#include "services/hal/shared_region.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace orb::hal {

Result<std::shared_ptr<const SharedRegion>> SharedRegion::Open(UniqueFd fd, int64_t offset,
                                                               int64_t length) {
  const int seals = fd.ok() ? fcntl(fd.get(), F_GET_SEALS) : -1;
  struct stat info {};
  if (seals < 0 || fstat(fd.get(), &info) != 0) {
    return Error{"the descriptor is no shared memory; make it with memfd_create"};
  }
  if ((static_cast<unsigned>(seals) & F_SEAL_SHRINK) == 0) {
    return Error{"the memory may shrink; make it with MFD_ALLOW_SEALING and add F_SEAL_SHRINK"};
  }
  const int flags = fcntl(fd.get(), F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) == O_WRONLY) {
    return Error{"the descriptor cannot be read"};
  }
  if (offset < 0 || length <= 0 || offset > info.st_size || length > info.st_size - offset) {
    return Error{"offset " + std::to_string(offset) + " and length " + std::to_string(length) +
                 " lie outside its " + std::to_string(info.st_size) + " bytes"};
  }
  return std::shared_ptr<const SharedRegion>(new SharedRegion(
      std::move(fd), static_cast<uint64_t>(offset), static_cast<uint64_t>(length)));
}

bool SharedRegion::Read(uint64_t offset, std::span<uint8_t> out) const {
  if (!Holds(offset, out.size())) return false;
  while (!out.empty()) {
    const ssize_t got =
        pread(fd_.get(), out.data(), out.size(), static_cast<off_t>(offset_bytes_ + offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    offset += static_cast<uint64_t>(got);
    out = out.subspan(static_cast<size_t>(got));
  }
  return true;
}

}  // namespace orb::hal
