// libcutils as Debian builds it makes a region an unlinked file below /tmp, which
// mostly is on a disk: telemetry would be written there in the clear, and writers
// held up by its write-back. This definition comes before that one.
// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include <cutils/ashmem.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "utility/unique_fd.h"

extern "C" int ashmem_create_region(const char* name, size_t size) {
  orb::UniqueFd fd(memfd_create(name != nullptr ? name : "none", MFD_CLOEXEC));
  if (fd.get() < 0 || ftruncate(fd.get(), static_cast<off_t>(size)) != 0) return -1;
  return fd.release();
}
