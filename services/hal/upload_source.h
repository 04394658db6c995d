// An upload on its way into the spool: its bytes lie in memory of the client's
// and are copied piece by piece, so that the HAL never holds a whole one.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace orb::hal {

struct UploadSource {
  uint64_t bytes = 0;
  // Fills the piece with the bytes from `offset` on; false when they are gone. The
  // client may change them at any time, so whoever stores the upload checks its copy.
  std::function<bool(uint64_t offset, std::span<uint8_t> piece)> read;
};

}  // namespace orb::hal
