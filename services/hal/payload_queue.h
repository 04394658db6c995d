// A client's message queue, read once, without mapping it (shared_region.h
// tells why) and without believing a number in it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "services/hal/shared_region.h"
#include "services/hal/upload_source.h"
#include "utility/result.h"
#include "utility/unique_fd.h"

namespace orb::hal {

// A queue's descriptor as it came.
struct QueueLayout {
  struct Piece {
    int32_t fd_index = 0;
    int32_t offset = 0;  // Bytes.
    int64_t extent = 0;  // Bytes.
  };
  std::vector<UniqueFd> fds;  // One, if it is a queue of this system's.
  std::vector<Piece> pieces;  // Read counter, write counter, data [, event flag].
  int32_t quantum_bytes = 0;
  int32_t flags = 0;
};

class PayloadQueue {
 public:
  // Takes the memory's descriptor, the only one that a queue keeps. Refuses a layout
  // unless it is that of a queue of bytes with one reader and one writer, in one piece
  // of memory, for no more than an upload may have.
  static Result<std::shared_ptr<const PayloadQueue>> Open(QueueLayout layout);

  // The next `total` bytes, which *out can read as long as it likes. False when fewer
  // are there, or its memory is gone.
  bool Next(uint32_t total, UploadSource* out) const;

 private:
  PayloadQueue(std::shared_ptr<const SharedRegion> memory,
               const std::vector<QueueLayout::Piece>& pieces);

  const std::shared_ptr<const SharedRegion> memory_;
  const uint64_t read_counter_;  // Offsets in it.
  const uint64_t write_counter_;
  const uint64_t data_;
  const uint64_t data_bytes_;
};

}  // namespace orb::hal
