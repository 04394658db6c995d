// Tested by tests/services/spool_test.cpp.
#include "services/hal/spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "serializer/header_layout.h"
#include "services/common/directory.h"
#include "services/common/durable_file.h"
#include "services/hal/upload_name.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb::hal {
namespace {

namespace fs = std::filesystem;

constexpr const char* kIncoming = ".incoming";
// A client that repeats a number within a millisecond this often has lost count.
constexpr int kMaxRepeats = 1000;
// On a full disk, up to this many times the upload's size is freed before the upload is
// given up: other programs may take what is freed.
constexpr uint64_t kMostTimesFreed = 8;

using Header = std::array<uint8_t, header::kBytes>;

// SEQNO-TIMESTAMP of the upload's header.
std::string StemOf(const Header& header) {
  char stem[48];
  static_cast<void>(snprintf(stem, sizeof stem, "%010" PRIu32 "-%013" PRIu64,
                             header::kSeqno.Load(header.data()),
                             header::kCreated.Load(header.data())));
  return stem;
}

// Reads the upload and copies its header, which is in the first piece, to *header: the
// client may change its memory at any time, and the file's name must match its bytes.
services::ContentSource ContentOf(const UploadSource& upload, Header* header) {
  return [&upload, header](uint64_t offset, std::span<uint8_t> piece) {
    if (!upload.read(offset, piece)) return EIO;
    if (offset == 0) std::copy_n(piece.begin(), header->size(), header->begin());
    return 0;
  };
}

// How many of the folders are not there yet.
size_t CountMissing(int root, const std::vector<std::string>& folders) {
  std::string path;
  for (size_t i = 0; i < folders.size(); ++i) {
    path += folders[i];
    if (faccessat(root, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) return folders.size() - i;
    path += '/';
  }
  return 0;
}

bool SaysFull(int error) { return error == ENOSPC || error == EDQUOT; }

}  // namespace

Result<std::unique_ptr<Spool>> Spool::Open(const std::string& directory, uint64_t max_bytes,
                                           StatDisk stat_disk) {
  Result<UniqueFd> root = services::TakeDirectory(directory);
  if (!root.ok()) return root.error();
  std::error_code ignored;
  fs::remove_all(fs::path(directory) / kIncoming, ignored);
  UniqueFd incoming = mkdirat(root->get(), kIncoming, 0700) == 0
                          ? services::OpenDirectory(root->get(), kIncoming)
                          : UniqueFd();
  if (!incoming.ok()) return SystemError("cannot write to " + directory, errno);
  std::unique_ptr<Spool> spool(
      new Spool(max_bytes, *std::move(root), std::move(incoming), stat_disk));
  MutexLock lock(spool->mutex_);
  const int scanned = spool->room_.Scan();
  if (scanned != 0) return SystemError("cannot read " + directory, scanned);
  spool->room_.Hold({});  // Removes the oldest uploads if the quota was lowered.
  return spool;
}

Spool::Spool(uint64_t max_bytes, UniqueFd root, UniqueFd incoming, StatDisk stat_disk)
    : max_bytes_(max_bytes),
      root_(std::move(root)),
      incoming_(std::move(incoming)),
      room_(root_.get(), max_bytes, stat_disk) {}

Result<Spool::Folders> Spool::Admit(const std::string& name, uint64_t bytes) const {
  Result<Folders> folders = ParseUploadName(name);
  if (!folders.ok()) return Error{folders.error().text + " in \"" + Printable(name) + "\""};
  const std::string has = Printable(name) + " has " + std::to_string(bytes) + " bytes, ";
  if (bytes < header::kBytes || bytes > kMaxUploadBytes) {
    return Error{has + std::to_string(header::kBytes) + " to " + std::to_string(kMaxUploadBytes) +
                 " are allowed"};
  }
  if (max_bytes_ != 0 && bytes > max_bytes_) {
    return Error{has + "the whole spool may hold " + std::to_string(max_bytes_)};
  }
  return folders;
}

bool Spool::Store(const std::string& name, std::span<const uint8_t> upload) {
  return Store(name,
               UploadSource{upload.size(), [upload](uint64_t offset, std::span<uint8_t> piece) {
                              memcpy(piece.data(), upload.data() + offset, piece.size());
                              return true;
                            }});
}

bool Spool::Store(const std::string& name, const UploadSource& upload) {
  const Result<Folders> folders = Admit(name, upload.bytes);
  if (!folders.ok()) {
    LOGE("upload refused: %s", folders.error().text.c_str());
    return false;
  }
  int error = Write(*folders, upload);
  // The disk may be full without having said so before: a quota of the user, another
  // program that is faster. The newest upload is worth more than the oldest ones.
  for (uint64_t times = 1; SaysFull(error) && times <= kMostTimesFreed; times *= 2) {
    bool freed = false;
    {
      MutexLock lock(mutex_);
      const SpoolRoom::Need need = room_.NeedOf(upload.bytes, folders->size());
      freed = room_.Free({need.bytes * times, need.inodes * times});
    }
    error = Write(*folders, upload);
    if (!freed) break;
  }
  if (error == 0) return true;
  LOGE("upload %s could not be stored: %s", Printable(name).c_str(), ErrorText(error).c_str());
  return false;
}

int Spool::Write(const Folders& folders, const UploadSource& upload) {
  SpoolRoom::Need need;
  {
    MutexLock lock(mutex_);
    need = room_.NeedOf(upload.bytes, CountMissing(root_.get(), folders));
    room_.Hold(need);
  }
  const std::string temporary = std::to_string(next_temporary_.fetch_add(1)) + ".tmp";
  Header header{};
  int error =
      services::WriteNewFile(incoming_.get(), temporary, upload.bytes, ContentOf(upload, &header));
  MutexLock lock(mutex_);
  room_.Return(need);
  if (error == 0) error = Place(temporary, folders, StemOf(header));
  if (error != 0) unlinkat(incoming_.get(), temporary.c_str(), 0);
  return error;
}

int Spool::Place(const std::string& temporary, const Folders& folders, const std::string& stem) {
  const UniqueFd folder = OpenFolders(folders);
  if (!folder.ok()) return errno;
  struct stat info {};
  const int error = Date(temporary, &info);
  if (error != 0) return error;
  for (int repeat = 0; repeat < kMaxRepeats; ++repeat) {
    const std::string file = stem + (repeat == 0 ? "" : "." + std::to_string(repeat)) + ".orb";
    // This process alone adds files, and only here: nothing can appear between
    // the two calls.
    if (faccessat(folder.get(), file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) continue;
    if (renameat(incoming_.get(), temporary.c_str(), folder.get(), file.c_str()) != 0) {
      return errno;
    }
    if (fsync(folder.get()) != 0) {
      const int sync_error = errno;
      unlinkat(folder.get(), file.c_str(), 0);  // The client is told that it is lost.
      return sync_error;
    }
    room_.Added(ChargeOf(info), StampOf(info));
    return 0;
  }
  return EEXIST;
}

int Spool::Date(const std::string& temporary, struct stat* info) {
  if (fstatat(incoming_.get(), temporary.c_str(), info, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  const Stamp& newest = room_.newest();
  if (StampOf(*info) > newest) return 0;
  // Stored within the same tick, or the clock was set back: the order must not change.
  constexpr long kNanosecondsMax = 999'999'999;
  timespec times[2] = {{0, UTIME_OMIT}, {newest.seconds, newest.nanoseconds}};
  timespec& next = times[1];
  if (next.tv_nsec++ == kNanosecondsMax) next = {next.tv_sec + 1, 0};
  info->st_mtim = next;
  const int result = utimensat(incoming_.get(), temporary.c_str(), times, AT_SYMLINK_NOFOLLOW);
  return result == 0 ? 0 : errno;
}

// The innermost of the folders, created as far as necessary; no link is followed. Not
// ok, with errno set, on failure.
UniqueFd Spool::OpenFolders(const Folders& folders) {
  UniqueFd at = services::OpenDirectory(root_.get(), ".");
  for (const std::string& folder : folders) {
    if (!at.ok()) break;
    if (mkdirat(at.get(), folder.c_str(), 0750) == 0) {
      room_.AddedFolder();
      if (fsync(at.get()) != 0) return UniqueFd();
    } else if (errno != EEXIST) {
      return UniqueFd();
    }
    at.reset(openat(at.get(), folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  return at;
}

uint64_t Spool::StoredBytes() const {
  MutexLock lock(mutex_);
  return room_.StoredBytes();
}

}  // namespace orb::hal
