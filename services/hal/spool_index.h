// Which files lie in the spool, oldest first, and how much they hold.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace orb::hal {

struct SpooledFile {
  std::string path;  // Below the spool, without a leading slash.
  uint64_t bytes = 0;
};

// Not thread-safe: the spool's mutex guards it.
class SpoolIndex {
 public:
  // Lists the *.orb files below `directory`, by time of modification. False
  // with the reason in *error.
  bool Load(const std::string& directory, std::string* error);

  void Add(SpooledFile file);
  bool Empty() const { return files_.empty(); }
  // The oldest file, which is then forgotten. Not on an empty index.
  SpooledFile TakeOldest();
  uint64_t TotalBytes() const { return total_bytes_; }

 private:
  std::deque<SpooledFile> files_;
  uint64_t total_bytes_ = 0;
};

}  // namespace orb::hal
