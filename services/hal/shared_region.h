// Memory that a client shares by descriptor. Only a memfd that is sealed against
// shrinking counts: reading it never comes up short and never waits, while a file system
// that the client serves itself could make it wait. The memory is not mapped, so that no
// fault in it can end the process.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "utility/result.h"
#include "utility/unique_fd.h"

namespace orb::hal {

// Immutable once made; any thread.
class SharedRegion {
 public:
  // Takes the descriptor. `offset` and `length` are the shared part, in bytes. The error
  // names the remedy: only readable memory that cannot shrink and holds that part counts.
  static Result<std::shared_ptr<const SharedRegion>> Open(UniqueFd fd, int64_t offset,
                                                          int64_t length);

  uint64_t length() const { return length_bytes_; }

  // Whether the shared part has `size` bytes from `offset` on.
  bool Holds(uint64_t offset, uint64_t size) const {
    return offset <= length_bytes_ && size <= length_bytes_ - offset;
  }
  // Fills `out` with the bytes from `offset` of the shared part on. False when that
  // leaves the part, or the memory cannot be read.
  bool Read(uint64_t offset, std::span<uint8_t> out) const;

 private:
  SharedRegion(UniqueFd fd, uint64_t offset, uint64_t length)
      : fd_(std::move(fd)), offset_bytes_(offset), length_bytes_(length) {}

  const UniqueFd fd_;
  const uint64_t offset_bytes_;
  const uint64_t length_bytes_;
};

}  // namespace orb::hal
