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

// What is free on the disk: fstatvfs, unless a test knows better.
using StatDisk = int (*)(int fd, struct statvfs* out);

// Counts what the spool takes of the disk. Files that readers take away are noticed
// where it matters: the tree is read anew before anything goes for the quota's sake.
//
// Not thread-safe: the spool's mutex guards it.
class SpoolRoom {
 public:
  // What a new upload takes until it is stored, at most.
  struct Need {
    uint64_t bytes = 0;
    uint64_t inodes = 0;
  };

  // `root` is borrowed. `max_bytes` of the disk, 0 for no quota.
  SpoolRoom(int root, uint64_t max_bytes, StatDisk stat_disk);

  // Reads the tree. 0, or an errno value.
  int Scan();

  // What an upload takes with the folders that it makes.
  Need NeedOf(uint64_t content_bytes, uint64_t new_folders) const;

  // Makes room for one more upload and holds it until Return.
  void Hold(const Need& need);
  void Return(const Need& need);
  // Removes the oldest uploads until they have given back that much, whatever is free.
  // False when there are no more.
  bool Free(const Need& least);

  // An upload is in its place; a folder was made.
  void Added(uint64_t bytes, const Stamp& stamp);
  void AddedFolder();
  // The newest upload's stamp.
  const Stamp& newest() const { return newest_; }
  // On the disk, as far as this process knows.
  uint64_t StoredBytes() const { return stored_bytes_; }

 private:
  bool KeepsQuota(uint64_t more_bytes) const;
  void KeepReserve(const Need& need);
  // Removes the oldest uploads until done(what they gave back). False when it came to
  // an end before.
  bool RemoveUntil(const std::function<bool(const Need&)>& done);
  bool Remove(const SpooledFile& file, Need* freed);
  void RemoveEmptyFolders(const std::string& path, Need* freed);
  void GiveBack(uint64_t bytes);

  const int root_;
  const uint64_t max_bytes_;
  const StatDisk stat_disk_;
  uint64_t block_bytes_ = 4096;
  uint64_t stored_bytes_ = 0;
  Need held_;  // For uploads under way.
  Stamp newest_;
  std::deque<SpooledFile> oldest_;  // Whatever was stored since the scan is newer.
  uint64_t stored_since_scan_ = 0;  // Uploads.
};

}  // namespace orb::hal
