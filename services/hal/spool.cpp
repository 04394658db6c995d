// Tested by tests/services/spool_test.cpp.
#include "services/hal/spool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "serializer/telemetry_header.h"
#include "services/common/durable_file.h"
#include "services/hal/upload_name.h"
#include "utility/byte_order.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb::hal {
namespace {

namespace fs = std::filesystem;

constexpr const char* kIncoming = ".incoming";
constexpr uint32_t kTimestampOffset = 17;
constexpr uint32_t kSeqnoOffset = 49;
static_assert(kSeqnoOffset + sizeof(uint32_t) <= TelemetryHeader::kBytes);
// A client that repeats a number within a millisecond this often has lost count.
constexpr int kMaxRepeats = 1000;

// SEQNO-TIMESTAMP of the upload's header.
std::string StemOf(std::span<const uint8_t> upload) {
  char stem[48];
  static_cast<void>(snprintf(stem, sizeof stem, "%010" PRIu32 "-%013" PRIu64,
                             LoadBigEndian<uint32_t>(upload.data() + kSeqnoOffset),
                             LoadBigEndian<uint64_t>(upload.data() + kTimestampOffset)));
  return stem;
}

std::string Join(const std::vector<std::string>& folders) {
  std::string path;
  for (const std::string& folder : folders) path += folder + "/";
  return path;
}

// The innermost of the folders below `root`, created as far as necessary; no
// link is followed. Not ok, with errno set, on failure.
UniqueFd OpenFolders(int root, const std::vector<std::string>& folders) {
  UniqueFd at(openat(root, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const std::string& folder : folders) {
    if (!at.ok()) break;
    const bool created = mkdirat(at.get(), folder.c_str(), 0750) == 0;
    if (created && fsync(at.get()) != 0) return UniqueFd();
    at.reset(openat(at.get(), folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  return at;
}

UniqueFd OpenDirectory(int at, const char* path) {
  return UniqueFd(openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

std::unique_ptr<Spool> Spool::Open(const std::string& directory, uint64_t max_bytes,
                                   std::string* error) {
  std::error_code ec;
  fs::create_directories(directory, ec);
  UniqueFd root = OpenDirectory(AT_FDCWD, directory.c_str());
  if (!root.ok()) {
    *error = "cannot use " + directory + ": " + ErrorText(errno);
    return nullptr;
  }
  if (flock(root.get(), LOCK_EX | LOCK_NB) != 0) {
    *error = directory + " is in use by another process";
    return nullptr;
  }
  fs::remove_all(fs::path(directory) / kIncoming, ec);
  UniqueFd incoming =
      mkdirat(root.get(), kIncoming, 0700) == 0 ? OpenDirectory(root.get(), kIncoming) : UniqueFd();
  if (!incoming.ok()) {
    *error = "cannot write to " + directory + ": " + ErrorText(errno);
    return nullptr;
  }
  std::unique_ptr<Spool> spool(
      new Spool(directory, max_bytes, std::move(root), std::move(incoming)));
  MutexLock lock(spool->mutex_);
  if (!spool->index_.Load(directory, error)) {
    *error = "cannot read " + directory + ": " + *error;
    return nullptr;
  }
  spool->MakeRoomFor(0);
  return spool;
}

Spool::Spool(std::string directory, uint64_t max_bytes, UniqueFd root, UniqueFd incoming)
    : directory_(std::move(directory)),
      max_bytes_(max_bytes),
      root_(std::move(root)),
      incoming_(std::move(incoming)) {}

bool Spool::Store(const std::string& name, std::span<const uint8_t> upload) {
  std::vector<std::string> folders;
  std::string why;
  if (!ParseUploadName(name, &folders, &why)) {
    LOGE("upload refused: %s in \"%s\"", why.c_str(), Printable(name).c_str());
    return false;
  }
  if (upload.size() < TelemetryHeader::kBytes || upload.size() > kMaxUploadBytes) {
    LOGE("upload refused: %s has %zu bytes, %" PRIu32 " to %" PRIu32 " are allowed",
         Printable(name).c_str(), upload.size(), TelemetryHeader::kBytes, kMaxUploadBytes);
    return false;
  }
  if (max_bytes_ != 0 && upload.size() > max_bytes_) {
    LOGE("upload refused: %s has %zu bytes, the whole spool may hold %" PRIu64,
         Printable(name).c_str(), upload.size(), max_bytes_);
    return false;
  }
  const std::string temporary = std::to_string(next_temporary_.fetch_add(1)) + ".tmp";
  int error = services::WriteNewFile(incoming_.get(), temporary, upload);
  if (error == 0) {
    MutexLock lock(mutex_);
    MakeRoomFor(upload.size());
    error = Place(temporary, folders, StemOf(upload), upload.size());
  }
  if (error == 0) return true;
  unlinkat(incoming_.get(), temporary.c_str(), 0);
  LOGE("upload %s could not be stored: %s", Printable(name).c_str(), ErrorText(error).c_str());
  return false;
}

// 0, or an errno value.
int Spool::Place(const std::string& temporary, const std::vector<std::string>& folders,
                 const std::string& stem, uint64_t bytes) {
  const UniqueFd folder = OpenFolders(root_.get(), folders);
  if (!folder.ok()) return errno;
  for (int repeat = 0; repeat < kMaxRepeats; ++repeat) {
    const std::string file = stem + (repeat == 0 ? "" : "." + std::to_string(repeat)) + ".orb";
    // This process alone adds files, and only here: nothing can appear between
    // the two calls.
    if (faccessat(folder.get(), file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) continue;
    if (renameat(incoming_.get(), temporary.c_str(), folder.get(), file.c_str()) != 0) {
      return errno;
    }
    index_.Add({Join(folders) + file, bytes});
    return fsync(folder.get()) == 0 ? 0 : errno;
  }
  return EEXIST;
}

void Spool::MakeRoomFor(uint64_t bytes) {
  while (max_bytes_ != 0 && !index_.Empty() && index_.TotalBytes() + bytes > max_bytes_) {
    Remove(index_.TakeOldest());
  }
}

void Spool::Remove(const SpooledFile& file) {
  if (unlinkat(root_.get(), file.path.c_str(), 0) == 0) {
    LOGW("spool full: removed %s, %" PRIu64 " bytes", file.path.c_str(), file.bytes);
  } else if (errno != ENOENT) {  // A reader may have taken it: nothing to tell.
    LOGE("spool full: cannot remove %s: %s", file.path.c_str(), ErrorText(errno).c_str());
  }
  // Folders go with their last file; one that still holds something stays.
  for (fs::path folder = fs::path(file.path).parent_path(); !folder.empty();
       folder = folder.parent_path()) {
    if (unlinkat(root_.get(), folder.c_str(), AT_REMOVEDIR) != 0) break;
  }
}

uint64_t Spool::StoredBytes() const {
  MutexLock lock(mutex_);
  return index_.TotalBytes();
}

}  // namespace orb::hal
