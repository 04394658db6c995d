// Tested by tests/orbctl/sim_test.cpp.
#include "tools/orbctl/sim/full_disk.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "utility/thread_annotations.h"

extern "C" {
size_t __real_fwrite(const void* bytes, size_t size, size_t count, FILE* file);
size_t __wrap_fwrite(const void* bytes, size_t size, size_t count, FILE* file);
}

namespace orb::orbctl {
namespace {

constexpr long kBlockBytes = 4096;

struct FullDisk {
  std::atomic<bool> on{false};
  Mutex mutex;
  std::string directory ORB_GUARDED_BY(mutex);
};

FullDisk& Disk() {
  static auto* const disk = new FullDisk();
  return *disk;
}

bool IsFullFor(FILE* file) {
  FullDisk& disk = Disk();
  if (!disk.on || file == nullptr) return false;
  const std::string link = "/proc/self/fd/" + std::to_string(fileno(file));
  char path[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  MutexLock lock(disk.mutex);
  return length > 0 && std::string(path, static_cast<size_t>(length)).starts_with(disk.directory);
}

// Bytes up to the end of the file's last block.
size_t Room(FILE* file) {
  const long position = std::max(ftell(file), 0L);
  return static_cast<size_t>((kBlockBytes - position % kBlockBytes) % kBlockBytes);
}

}  // namespace

void SetFullDisk(const std::string& directory) {
  FullDisk& disk = Disk();
  MutexLock lock(disk.mutex);
  disk.directory = directory;
  disk.on = !directory.empty();
}

}  // namespace orb::orbctl

size_t __wrap_fwrite(const void* bytes, size_t size, size_t count, FILE* file) {
  if (size == 0 || count == 0 || !orb::orbctl::IsFullFor(file)) {
    return __real_fwrite(bytes, size, count, file);
  }
  const size_t fits = std::min(size * count, orb::orbctl::Room(file));
  const size_t written = fits == 0 ? 0 : __real_fwrite(bytes, 1, fits, file);
  if (written == size * count) return count;
  errno = ENOSPC;
  return written / size;
}
