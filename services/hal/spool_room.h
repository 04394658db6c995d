// Keeps the spool below its quota and the disk from filling up, by removing the oldest
// uploads.
#pragma once

#include <sys/statvfs.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "services/hal/spool_scan.h"

namespace orb::hal {

// Tells what is free on the disk: fstatvfs, or the answer of a test.
using StatDisk = int (*)(int fd, struct statvfs* out);

// Counts what the spool takes of the disk. Files that readers take away are noticed
// where it matters: the tree is read anew before anything goes for the quota's sake.
//
// Not thread-safe: the spool's mutex guards it.
class SpoolRoom {
 public:
  // The most that a new upload takes until it is stored.
  struct Need {
    uint64_t bytes = 0;
    uint64_t inodes = 0;
  };

  // `root` is borrowed. `max_bytes` of the disk, 0 for no quota.
  SpoolRoom(int root, uint64_t max_bytes, StatDisk stat_disk);

  // Reads the tree. 0, or an errno value.
  int Scan();

  // The need of an upload with the folders that it makes.
  Need NeedOf(uint64_t content_bytes, uint64_t new_folders) const;

  // Makes room for one more upload and holds it until Return.
  void Hold(const Need& need);
  void Return(const Need& need);
  // Removes the oldest uploads until they have given back that much, whatever is free.
  // False when there are no more.
  bool Free(const Need& least);

  // Count an upload that is in its place, and a folder that was made.
  void Added(uint64_t bytes, const Stamp& stamp);
  void AddedFolder();
  // The newest upload's stamp.
  const Stamp& newest() const { return newest_; }
  // Bytes on the disk, as far as this process knows.
  uint64_t StoredBytes() const { return stored_bytes_; }

 private:
  bool KeepsQuota(uint64_t more_bytes) const;
  void KeepReserve(const Need& need);
  // Removes the oldest uploads until `done` says that they have given back enough. False
  // when there are no more before that.
  bool RemoveUntil(const std::function<bool(const Need&)>& done);
  bool Remove(const SpooledFile& file, Need* freed);
  void RemoveEmptyFolders(const std::string& path, Need* freed);
  void GiveBack(uint64_t bytes);

  const int root_;
  const uint64_t max_bytes_;
  const StatDisk stat_disk_;
  uint64_t block_bytes_ = 4096;
  uint64_t stored_bytes_ = 0;
  Need held_;  // By uploads under way.
  Stamp newest_;
  std::deque<SpooledFile> oldest_;  // Uploads stored since the scan are newer.
  uint64_t stored_since_scan_ = 0;  // Uploads.
};

}  // namespace orb::hal
