// Tested by tests/services/spool_test.cpp.
#include "services/hal/spool_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <queue>
#include <tuple>
#include <utility>
#include <vector>

#include "utility/checked.h"
#include "utility/unique_fd.h"

namespace orb::hal {
namespace {

constexpr uint64_t kStatBlockBytes = 512;
// Folders are nested less deeply by any upload's name; each level takes stack and a descriptor.
constexpr int kMostDepth = 32;

bool IsUpload(const std::string& name) { return name.size() > 4 && name.ends_with(".orb"); }

bool Older(const SpooledFile& a, const SpooledFile& b) {
  return std::tie(a.stamp, a.path) < std::tie(b.stamp, b.path);
}

class Scanner {
 public:
  Scanner(size_t most, SpoolScan* out) : most_(most), out_(out) {}

  // Reads the folder that `fd` is; *entries counts what is left in it.
  int Read(UniqueFd fd, const std::string& prefix, int depth, size_t* entries) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(fdopendir(fd.get()), closedir);
    if (folder == nullptr) return errno;
    [[maybe_unused]] const int streams = fd.release();  // The stream closes it.
    for (;;) {
      errno = 0;
      // Only this thread knows the stream.
      // NOLINTNEXTLINE(concurrency-mt-unsafe)
      const dirent* const entry = readdir(folder.get());
      if (entry == nullptr) return errno;
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      ++*entries;
      if (name[0] == '.') continue;  // The spool's own file: no upload's name begins with a dot.
      struct stat info {};
      if (fstatat(dirfd(folder.get()), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISDIR(info.st_mode) && depth < kMostDepth) {
        const int error = ReadBelow(dirfd(folder.get()), name, prefix, depth, entries);
        if (error != 0) return error;
      } else if (S_ISREG(info.st_mode) && IsUpload(name)) {
        Add({prefix + name, ChargeOf(info), StampOf(info)});
      }
    }
  }

  // Call once, after Read.
  void ListOldest() {
    for (; !oldest_.empty(); oldest_.pop()) out_->oldest.push_front(oldest_.top());
  }

 private:
  int ReadBelow(int at, const std::string& name, const std::string& prefix, int depth,
                size_t* entries) {
    UniqueFd fd(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // It is gone by now, or one like lost+found, which holds no upload.
    if (!fd.ok()) return errno == ENOENT || errno == EACCES ? 0 : errno;
    size_t left = 0;
    const int error = Read(std::move(fd), prefix + name + "/", depth + 1, &left);
    if (error != 0) return error;
    if (left == 0 && unlinkat(at, name.c_str(), AT_REMOVEDIR) == 0) {
      --*entries;
    } else {
      out_->bytes = CheckedAdd<uint64_t>(out_->bytes, kFolderBytes);
    }
    return 0;
  }

  void Add(SpooledFile file) {
    out_->bytes = CheckedAdd<uint64_t>(out_->bytes, file.bytes);
    out_->newest = std::max(out_->newest, file.stamp);
    oldest_.push(std::move(file));
    if (oldest_.size() > most_) oldest_.pop();
  }

  const size_t most_;
  SpoolScan* const out_;
  // Holds the oldest files, the newest of them on top.
  std::priority_queue<SpooledFile, std::vector<SpooledFile>, decltype(&Older)> oldest_{&Older};
};

}  // namespace

uint64_t ChargeOf(const struct stat& info) {
  const auto blocks = CheckedCast<uint64_t>(info.st_blocks);
  return CheckedAdd<uint64_t>(CheckedMul<uint64_t>(blocks, kStatBlockBytes), kInodeBytes);
}

Stamp StampOf(const struct stat& info) { return {info.st_mtim.tv_sec, info.st_mtim.tv_nsec}; }

int ScanSpool(int root, size_t most, SpoolScan* out) {
  UniqueFd fd(openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.ok()) return errno;
  Scanner scanner(most, out);
  size_t entries = 0;
  const int error = scanner.Read(std::move(fd), "", 0, &entries);
  scanner.ListOldest();
  return error;
}

}  // namespace orb::hal
