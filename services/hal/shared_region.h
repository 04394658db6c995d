// Memory that a client shares by descriptor, read without mapping it: a client
// that shrinks its region makes a read come up short here, where a mapped one
// would end the process with a bus error.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "utility/unique_fd.h"

namespace orb::hal {

// Immutable once made; any thread.
class SharedRegion {
 public:
  // Takes the descriptor. `offset` and `length` are the shared part, in bytes.
  // Null, with the reason in *why, unless it is a readable file that holds
  // that part.
  static std::shared_ptr<const SharedRegion> Open(UniqueFd fd, int64_t offset, int64_t length,
                                                  std::string* why);

  uint64_t length() const { return length_bytes_; }

  // Whether the shared part has `size` bytes from `offset` on.
  bool Holds(uint64_t offset, uint64_t size) const {
    return offset <= length_bytes_ && size <= length_bytes_ - offset;
  }
  // Fills `out` with the bytes from `offset` of the shared part on. False when that
  // leaves the part, or the file has become shorter.
  bool Read(uint64_t offset, std::span<uint8_t> out) const;

 private:
  SharedRegion(UniqueFd fd, uint64_t offset, uint64_t length)
      : fd_(std::move(fd)), offset_bytes_(offset), length_bytes_(length) {}

  const UniqueFd fd_;
  const uint64_t offset_bytes_;
  const uint64_t length_bytes_;
};

}  // namespace orb::hal
