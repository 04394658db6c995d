// Tested by tests/services/state_store_test.cpp and spool_test.cpp.
#include "services/common/durable_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "utility/unique_fd.h"

namespace orb::services {
namespace {

constexpr uint64_t kPieceBytes = 256 << 10;

int WriteAll(int fd, std::span<const uint8_t> content) {
  size_t done_bytes = 0;
  while (done_bytes < content.size()) {
    const ssize_t wrote = write(fd, content.data() + done_bytes, content.size() - done_bytes);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return errno;
    done_bytes += static_cast<size_t>(wrote);
  }
  return 0;
}

// `write_content` gets the open file and answers like its caller.
template <typename WriteContent>
int CreateFile(int dir_fd, const std::string& name, WriteContent write_content) {
  const UniqueFd fd(
      openat(dir_fd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!fd.ok()) return errno;
  int error = write_content(fd.get());
  if (error == 0 && fsync(fd.get()) != 0) error = errno;
  if (error != 0) unlinkat(dir_fd, name.c_str(), 0);
  return error;
}

}  // namespace

int WriteNewFile(int dir_fd, const std::string& name, std::span<const uint8_t> content) {
  return CreateFile(dir_fd, name, [&](int fd) { return WriteAll(fd, content); });
}

int WriteNewFile(int dir_fd, const std::string& name, uint64_t bytes,
                 const ContentSource& content) {
  return CreateFile(dir_fd, name, [&](int fd) {
    std::vector<uint8_t> buffer(static_cast<size_t>(std::min(bytes, kPieceBytes)));
    int error = 0;
    for (uint64_t offset = 0; error == 0 && offset < bytes; offset += buffer.size()) {
      const std::span<uint8_t> piece(
          buffer.data(), static_cast<size_t>(std::min<uint64_t>(bytes - offset, buffer.size())));
      error = content(offset, piece);
      if (error == 0) error = WriteAll(fd, piece);
    }
    return error;
  });
}

int ReplaceFile(int dir_fd, const std::string& name, std::span<const uint8_t> content) {
  const std::string temporary = name + ".tmp";
  unlinkat(dir_fd, temporary.c_str(), 0);  // Of an earlier run that ended between two steps.
  const int error = WriteNewFile(dir_fd, temporary, content);
  if (error != 0) return error;
  if (renameat(dir_fd, temporary.c_str(), dir_fd, name.c_str()) != 0) {
    const int rename_error = errno;
    unlinkat(dir_fd, temporary.c_str(), 0);
    return rename_error;
  }
  return fsync(dir_fd) == 0 ? 0 : errno;
}

Result<std::vector<uint8_t>> ReadWholeFile(int dir_fd, const std::string& name, size_t max_bytes) {
  const auto fail = [](int error) { return Error{ErrorText(error), error}; };
  // Not blocking: the name could have become a pipe without a writer.
  const UniqueFd fd(openat(dir_fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.ok()) return fail(errno);
  struct stat info {};
  if (fstat(fd.get(), &info) != 0) return fail(errno);
  if (!S_ISREG(info.st_mode)) return fail(EINVAL);
  if (static_cast<uint64_t>(info.st_size) > max_bytes) return fail(EFBIG);
  std::vector<uint8_t> content(static_cast<size_t>(info.st_size));
  size_t have_bytes = 0;
  while (have_bytes < content.size()) {
    const ssize_t got = read(fd.get(), content.data() + have_bytes, content.size() - have_bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(errno);
    if (got == 0) break;
    have_bytes += static_cast<size_t>(got);
  }
  content.resize(have_bytes);
  return content;
}

}  // namespace orb::services
