// What lies in the spool. Readers take files away without telling the HAL, so only the
// tree itself tells what is there.
#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace orb::hal {

// When a file was stored: its time of modification, which only grows (Spool::Place).
struct Stamp {
  int64_t seconds = 0;
  int64_t nanoseconds = 0;
  auto operator<=>(const Stamp&) const = default;
};

struct SpooledFile {
  std::string path;    // Below the spool, without a leading slash.
  uint64_t bytes = 0;  // On the disk (ChargeOf).
  Stamp stamp;
};

// An inode with its entry in the folder: a large part of what a small upload takes.
inline constexpr uint64_t kInodeBytes = 512;
// A folder: one block, whatever the file system says.
inline constexpr uint64_t kFolderBytes = 4096 + kInodeBytes;

// What a file takes of the disk: its blocks and its inode.
uint64_t ChargeOf(const struct stat& info);
Stamp StampOf(const struct stat& info);

struct SpoolScan {
  uint64_t bytes = 0;              // Of all uploads and folders.
  Stamp newest;                    // Of all uploads.
  std::deque<SpooledFile> oldest;  // The oldest first.
};

// Reads the tree below `root`, removes folders that are empty, and lists the oldest
// uploads, at most `most`: memory does not grow with the spool. Leaves out what is no
// upload, and folders that may not be read. 0, or an errno value.
int ScanSpool(int root, size_t most, SpoolScan* out);

}  // namespace orb::hal
