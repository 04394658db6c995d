// Tested by tests/services/spool_test.cpp and state_store_test.cpp.
#include "services/common/directory.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace orb::services {

UniqueFd OpenDirectory(int at, const char* path) {
  return UniqueFd(openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

Result<UniqueFd> TakeDirectory(const std::string& path) {
  std::error_code ignored;  // The open says what is wrong.
  std::filesystem::create_directories(path, ignored);
  UniqueFd fd = OpenDirectory(AT_FDCWD, path.c_str());
  if (!fd.ok()) return SystemError("cannot use " + path, errno);
  if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    return Error{path + " is in use by another process", EWOULDBLOCK};
  }
  return fd;
}

}  // namespace orb::services
