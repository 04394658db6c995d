// Tested by tests/services/hal_test.cpp.
#include "services/hal/payload_queue.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "services/hal/spool.h"

namespace orb::hal {
namespace {

constexpr size_t kMinPieces = 3;
constexpr size_t kMaxPieces = 4;
constexpr int64_t kCounterBytes = sizeof(uint64_t);
constexpr int32_t kSynchronized = 1;

std::shared_ptr<const SharedRegion> OpenPiece(const QueueLayout& layout, size_t index,
                                              int64_t bytes, std::string* why) {
  const QueueLayout::Piece& piece = layout.pieces[index];
  if (piece.fd_index < 0 || static_cast<size_t>(piece.fd_index) >= layout.fds.size()) {
    *why = "a piece of descriptor " + std::to_string(piece.fd_index);
    return nullptr;
  }
  if (piece.extent < bytes) {
    *why = "a piece of " + std::to_string(piece.extent) + " bytes";
    return nullptr;
  }
  const int fd = layout.fds[static_cast<size_t>(piece.fd_index)].get();
  return SharedRegion::Open(UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 0)), piece.offset, piece.extent,
                            why);
}

bool ReadCounter(const SharedRegion& region, uint64_t* value) {
  std::vector<uint8_t> bytes;
  if (!region.Read(0, kCounterBytes, &bytes)) return false;
  memcpy(value, bytes.data(), sizeof *value);
  return true;
}

}  // namespace

std::shared_ptr<const PayloadQueue> PayloadQueue::Open(const QueueLayout& layout,
                                                       std::string* why) {
  if (layout.quantum_bytes != 1 || layout.flags != kSynchronized) {
    *why = "not a synchronized queue of bytes";
    return nullptr;
  }
  if (layout.pieces.size() < kMinPieces || layout.pieces.size() > kMaxPieces) {
    *why = std::to_string(layout.pieces.size()) + " pieces";
    return nullptr;
  }
  auto queue = std::make_shared<PayloadQueue>();
  queue->read_counter_ = OpenPiece(layout, 0, kCounterBytes, why);
  if (queue->read_counter_ == nullptr) return nullptr;
  queue->write_counter_ = OpenPiece(layout, 1, kCounterBytes, why);
  if (queue->write_counter_ == nullptr) return nullptr;
  queue->data_ = OpenPiece(layout, 2, 1, why);
  if (queue->data_ == nullptr) return nullptr;
  return queue;
}

bool PayloadQueue::Read(uint32_t total, std::vector<uint8_t>* out) const {
  uint64_t read_bytes = 0;
  uint64_t written_bytes = 0;
  if (!ReadCounter(*read_counter_, &read_bytes) || !ReadCounter(*write_counter_, &written_bytes)) {
    return false;
  }
  const uint64_t size = data_->length();
  // The counters run freely and may have wrapped; a difference beyond the
  // queue's size is a lie.
  const uint64_t available = written_bytes - read_bytes;
  if (available > size || total > available || total > Spool::kMaxUploadBytes) return false;
  const uint64_t start = read_bytes % size;
  const uint64_t first = std::min<uint64_t>(total, size - start);
  out->clear();
  return data_->Read(start, first, out) && data_->Read(0, total - first, out);
}

void PendingQueues::Put(const Caller& caller, std::shared_ptr<const PayloadQueue> queue) {
  MutexLock lock(mutex_);
  queues_[caller] = {next_order_++, std::move(queue)};
  if (queues_.size() <= kMaxQueues) return;
  queues_.erase(std::min_element(queues_.begin(), queues_.end(), [](const auto& a, const auto& b) {
    return a.second.order < b.second.order;
  }));
}

std::shared_ptr<const PayloadQueue> PendingQueues::Take(const Caller& caller) {
  MutexLock lock(mutex_);
  const auto found = queues_.find(caller);
  if (found == queues_.end()) return nullptr;
  std::shared_ptr<const PayloadQueue> queue = std::move(found->second.queue);
  queues_.erase(found);
  return queue;
}

}  // namespace orb::hal
