// Tested by tests/services/hal_test.cpp.
#include "services/hal/payload_queue.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "services/hal/spool.h"

namespace orb::hal {
namespace {

constexpr size_t kMinPieces = 3;
constexpr size_t kMaxPieces = 4;
constexpr int64_t kCounterBytes = sizeof(uint64_t);
constexpr int32_t kSynchronized = 1;

// Whether the memory may hold the piece.
Result<void> CheckPiece(const QueueLayout::Piece& piece, int64_t least_bytes, int64_t most_bytes) {
  if (piece.fd_index != 0) return Error{"a piece of descriptor " + std::to_string(piece.fd_index)};
  if (piece.offset < 0) return Error{"a piece at " + std::to_string(piece.offset)};
  if (piece.extent < least_bytes || piece.extent > most_bytes) {
    return Error{"a piece of " + std::to_string(piece.extent) + " bytes"};
  }
  return {};
}

Result<void> Check(const QueueLayout& layout) {
  if (layout.quantum_bytes != 1 || layout.flags != kSynchronized) {
    return Error{"not a synchronized queue of bytes"};
  }
  const std::vector<QueueLayout::Piece>& pieces = layout.pieces;
  if (pieces.size() < kMinPieces || pieces.size() > kMaxPieces) {
    return Error{std::to_string(pieces.size()) + " pieces"};
  }
  if (layout.fds.size() != 1) return Error{std::to_string(layout.fds.size()) + " descriptors"};
  Result<void> fits = CheckPiece(pieces[0], kCounterBytes, INT32_MAX);
  if (fits.ok()) fits = CheckPiece(pieces[1], kCounterBytes, INT32_MAX);
  return fits.ok() ? CheckPiece(pieces[2], 1, Spool::kMaxUploadBytes) : fits;
}

uint64_t Begin(const QueueLayout::Piece& piece) { return static_cast<uint64_t>(piece.offset); }

bool ReadCounter(const SharedRegion& memory, uint64_t at, uint64_t* value) {
  std::array<uint8_t, kCounterBytes> bytes;
  if (!memory.Read(at, bytes)) return false;
  memcpy(value, bytes.data(), sizeof *value);
  return true;
}

}  // namespace

PayloadQueue::PayloadQueue(std::shared_ptr<const SharedRegion> memory,
                           const std::vector<QueueLayout::Piece>& pieces)
    : memory_(std::move(memory)),
      read_counter_(Begin(pieces[0])),
      write_counter_(Begin(pieces[1])),
      data_(Begin(pieces[2])),
      data_bytes_(static_cast<uint64_t>(pieces[2].extent)) {}

Result<std::shared_ptr<const PayloadQueue>> PayloadQueue::Open(QueueLayout layout) {
  const Result<void> fits = Check(layout);
  if (!fits.ok()) return fits.error();
  int64_t end = 0;
  for (size_t i = 0; i < kMinPieces; ++i) {
    end = std::max(end, layout.pieces[i].offset + layout.pieces[i].extent);
  }
  Result<std::shared_ptr<const SharedRegion>> memory =
      SharedRegion::Open(std::move(layout.fds[0]), 0, end);
  if (!memory.ok()) return memory.error();
  return std::shared_ptr<const PayloadQueue>(new PayloadQueue(*std::move(memory), layout.pieces));
}

bool PayloadQueue::Next(uint32_t total, UploadSource* out) const {
  uint64_t read_bytes = 0;
  uint64_t written_bytes = 0;
  if (!ReadCounter(*memory_, read_counter_, &read_bytes) ||
      !ReadCounter(*memory_, write_counter_, &written_bytes)) {
    return false;
  }
  // The counters run freely and may have wrapped; a difference beyond the
  // queue's size is a lie.
  const uint64_t available = written_bytes - read_bytes;
  if (available > data_bytes_ || total > available) return false;
  out->bytes = total;
  out->read = [memory = memory_, data = data_, size = data_bytes_,
               start = read_bytes % data_bytes_](uint64_t offset, std::span<uint8_t> piece) {
    const uint64_t at = (start + offset) % size;
    const auto first = static_cast<size_t>(std::min<uint64_t>(piece.size(), size - at));
    return memory->Read(data + at, piece.first(first)) && memory->Read(data, piece.subspan(first));
  };
  return true;
}

}  // namespace orb::hal
