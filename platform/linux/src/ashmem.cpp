// libcutils as Debian builds it makes a region an unlinked file below /tmp, which
// mostly is on a disk: telemetry would be written there in the clear, and writers
// held up by its write-back. This definition comes before that one. Its memory is sealed:
// it keeps its size, so that a receiver can rely on what it was told is there.
// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "utility/unique_fd.h"

extern "C" int ashmem_create_region(const char* name, size_t size) {
  orb::UniqueFd fd(memfd_create(name != nullptr ? name : "none", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (fd.get() < 0 || ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
      fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    return -1;
  }
  return fd.release();
}
