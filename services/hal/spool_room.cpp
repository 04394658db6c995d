// Tested by tests/services/spool_test.cpp.
#include "services/hal/spool_room.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <filesystem>

#include "utility/checked.h"
#include "utility/error_text.h"
#include "utility/log.h"

namespace orb::hal {
namespace {

namespace fs = std::filesystem;

// How many of the oldest uploads are known by name between two scans.
constexpr size_t kMostListed = 1024;
// After a scan this share of the quota is freed as well, so that scans are rare.
constexpr uint64_t kSlackShare = 64;
// What stays free of the disk for its other users, and for uploads side by side.
constexpr uint64_t kReserveShare = 50;
constexpr uint64_t kMostReserveBytes = uint64_t{256} << 20;

uint64_t Share(uint64_t all, uint64_t share) { return all / share; }

// How much of `wanted` is lacking, at most `most`.
uint64_t Lacking(uint64_t wanted, uint64_t there, uint64_t most) {
  return wanted > there ? std::min(wanted - there, most) : 0;
}

}  // namespace

SpoolRoom::SpoolRoom(int root, uint64_t max_bytes, StatDisk stat_disk)
    : root_(root), max_bytes_(max_bytes), stat_disk_(stat_disk) {
  struct statvfs disk {};
  if (stat_disk_(root_, &disk) == 0 && disk.f_frsize != 0) block_bytes_ = disk.f_frsize;
}

int SpoolRoom::Scan() {
  SpoolScan scan;
  const int error = ScanSpool(root_, kMostListed, &scan);
  if (error != 0) return error;
  stored_bytes_ = scan.bytes;
  newest_ = std::max(newest_, scan.newest);
  oldest_ = std::move(scan.oldest);
  stored_since_scan_ = 0;
  return 0;
}

SpoolRoom::Need SpoolRoom::NeedOf(uint64_t content_bytes, uint64_t new_folders) const {
  const uint64_t blocks = (content_bytes + block_bytes_ - 1) / block_bytes_;
  return {blocks * block_bytes_ + kInodeBytes + new_folders * kFolderBytes, 1 + new_folders};
}

bool SpoolRoom::KeepsQuota(uint64_t more_bytes) const {
  return max_bytes_ == 0 || CheckedAdd<uint64_t>(CheckedAdd<uint64_t>(stored_bytes_, held_.bytes),
                                                 more_bytes) <= max_bytes_;
}

void SpoolRoom::Hold(const Need& need) {
  if (!KeepsQuota(need.bytes)) {
    const int error = Scan();
    if (error != 0) LOGE("spool full: cannot read it: %s", ErrorText(error).c_str());
    const uint64_t slack = Share(max_bytes_, kSlackShare);
    RemoveUntil([&](const Need&) { return KeepsQuota(need.bytes + slack); });
  }
  KeepReserve(need);
  held_ = {held_.bytes + need.bytes, held_.inodes + need.inodes};
}

void SpoolRoom::Return(const Need& need) {
  held_ = {CheckedSub<uint64_t>(held_.bytes, need.bytes),
           CheckedSub<uint64_t>(held_.inodes, need.inodes)};
}

// Removes as much as the upload adds, not more: another program may be filling the disk,
// and would take whatever the spool gives up.
void SpoolRoom::KeepReserve(const Need& need) {
  struct statvfs disk {};
  if (stat_disk_(root_, &disk) != 0) return;
  const uint64_t reserve_bytes =
      std::min(Share(disk.f_blocks, kReserveShare) * disk.f_frsize, kMostReserveBytes);
  Need lacking;
  lacking.bytes =
      Lacking(reserve_bytes + held_.bytes + need.bytes, disk.f_bavail * disk.f_frsize, need.bytes);
  if (disk.f_files != 0) {  // 0: the file system has no bound for files.
    lacking.inodes = Lacking(Share(disk.f_files, kReserveShare) + held_.inodes + need.inodes,
                             disk.f_favail, need.inodes);
  }
  if (lacking.bytes + lacking.inodes == 0) return;
  // The scan removes the empty folders that readers leave.
  if (stored_since_scan_ >= kMostListed) static_cast<void>(Scan());
  Free(lacking);
}

bool SpoolRoom::Free(const Need& least) {
  return RemoveUntil([&](const Need& freed) {
    return freed.bytes >= least.bytes && freed.inodes >= least.inodes;
  });
}

bool SpoolRoom::RemoveUntil(const std::function<bool(const Need&)>& done) {
  Need freed;
  while (!done(freed)) {
    if (oldest_.empty() && (Scan() != 0 || oldest_.empty())) return false;
    const SpooledFile file = std::move(oldest_.front());
    oldest_.pop_front();
    // A file that cannot be removed would be found by each scan again.
    if (!Remove(file, &freed)) return false;
  }
  return true;
}

bool SpoolRoom::Remove(const SpooledFile& file, Need* freed) {
  const bool removed = unlinkat(root_, file.path.c_str(), 0) == 0;
  if (!removed && errno != ENOENT) {
    LOGE("spool full: cannot remove %s: %s", file.path.c_str(), ErrorText(errno).c_str());
    return false;
  }
  GiveBack(file.bytes);
  if (removed) {
    LOGW("spool full: removed %s, %" PRIu64 " bytes", file.path.c_str(), file.bytes);
    *freed = {freed->bytes + file.bytes, freed->inodes + 1};
  }
  RemoveEmptyFolders(file.path, freed);
  return true;
}

// Folders go with their last file; one that still holds something stays.
void SpoolRoom::RemoveEmptyFolders(const std::string& path, Need* freed) {
  for (fs::path folder = fs::path(path).parent_path(); !folder.empty();
       folder = folder.parent_path()) {
    if (unlinkat(root_, folder.c_str(), AT_REMOVEDIR) != 0) break;
    GiveBack(kFolderBytes);
    *freed = {freed->bytes + kFolderBytes, freed->inodes + 1};
  }
}

void SpoolRoom::Added(uint64_t bytes, const Stamp& stamp) {
  stored_bytes_ = CheckedAdd<uint64_t>(stored_bytes_, bytes);
  newest_ = std::max(newest_, stamp);
  ++stored_since_scan_;
}

void SpoolRoom::AddedFolder() { stored_bytes_ = CheckedAdd<uint64_t>(stored_bytes_, kFolderBytes); }

// A file may have shrunk or grown since it was counted; the next scan knows.
void SpoolRoom::GiveBack(uint64_t bytes) { stored_bytes_ -= std::min(stored_bytes_, bytes); }

}  // namespace orb::hal
