// Debian's libcutils makes a region an unlinked file below /tmp. That is often on a disk,
// so telemetry would lie there in the clear and write-back would delay writers. This
// definition replaces that one. The memory is sealed at its size, so that a receiver can
// rely on the size that it was told.
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
