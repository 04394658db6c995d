// Message queue memory: making it, mapping a peer's, moving bytes.
// Tested by tests/platform_ndk/queue_test.cpp.
#include "orb_platform/byte_queue.h"

#include <android/log.h>
#include <cutils/ashmem.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#define QUEUE_LOGE(...) \
  static_cast<void>(__android_log_print(ANDROID_LOG_ERROR, "FMQ", __VA_ARGS__))

namespace orb_platform {
namespace {

constexpr size_t kCounterBytes = sizeof(uint64_t);
constexpr size_t kAlignment = 8;
constexpr size_t kDataOffset = 2 * kCounterBytes;
static_assert(sizeof(std::atomic<uint64_t>) == kCounterBytes);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

constexpr size_t AlignUp(size_t value) { return (value + kAlignment - 1) & ~(kAlignment - 1); }

ByteQueue::Grantor MakeGrantor(size_t offset, size_t extent) {
  ByteQueue::Grantor grantor;
  grantor.offset = static_cast<int32_t>(offset);
  grantor.extent = static_cast<int64_t>(extent);
  return grantor;
}

size_t End(const ByteQueue::Grantor& grantor) {
  return static_cast<size_t>(grantor.offset) + static_cast<size_t>(grantor.extent);
}

bool Overlap(const ByteQueue::Grantor& a, const ByteQueue::Grantor& b) {
  return static_cast<size_t>(a.offset) < End(b) && static_cast<size_t>(b.offset) < End(a);
}

// Makes memory whose size cannot change.
::ndk::ScopedFileDescriptor MakeMemory(size_t bytes) {
  ::ndk::ScopedFileDescriptor fd(ashmem_create_region("MessageQueue", bytes));
  if (fd.get() < 0) QUEUE_LOGE("Cannot make queue memory of %zu bytes: errno %d", bytes, errno);
  return fd;
}

// The size of the descriptor's memory; 0 unless it is memory that cannot shrink.
size_t StableSize(int fd) {
  const int seals = fcntl(fd, F_GET_SEALS);
  struct stat info = {};
  if (seals < 0 || (seals & F_SEAL_SHRINK) == 0 || fstat(fd, &info) != 0) return 0;
  return static_cast<size_t>(std::max<off_t>(info.st_size, 0));
}

// Why the descriptor is refused, or null.
const char* Fault(size_t quantum, const ByteQueue::Received& desc, size_t memory_bytes) {
  const std::vector<ByteQueue::Grantor>& grantors = desc.grantors;
  if (desc.flags != ByteQueue::kSynchronizedReadWrite) return "flags";
  if (desc.quantum < 0 || static_cast<size_t>(desc.quantum) != quantum) return "quantum";
  if (grantors.size() < 3 || grantors.size() > 4) return "number of grantors";
  for (size_t i = 0; i < grantors.size(); ++i) {
    const ByteQueue::Grantor& grantor = grantors[i];
    if (grantor.fdIndex != 0) return "descriptor index";
    if (grantor.offset < 0 || grantor.offset % kAlignment != 0) return "offset";
    if (grantor.extent <= 0 || grantor.extent > INT64_MAX / 2 || End(grantor) > memory_bytes) {
      return "extent";
    }
    for (size_t j = 0; j < i; ++j) {
      if (Overlap(grantor, grantors[j])) return "overlap";
    }
  }
  if (static_cast<size_t>(grantors[0].extent) != kCounterBytes ||
      static_cast<size_t>(grantors[1].extent) != kCounterBytes) {
    return "counter";
  }
  if (static_cast<size_t>(grantors[2].extent) % quantum != 0) return "data size";
  if (grantors.size() == 4 && grantors[3].extent != sizeof(uint32_t)) return "event flag";
  return nullptr;
}

}  // namespace

ByteQueue::ByteQueue(::ndk::ScopedFileDescriptor fd, std::vector<Grantor> grantors, size_t quantum)
    : fd_(std::move(fd)), grantors_(std::move(grantors)), quantum_(quantum) {}

ByteQueue::~ByteQueue() {
  if (memory_ != nullptr) munmap(memory_, mapped_bytes_);
}

std::unique_ptr<ByteQueue> ByteQueue::Create(size_t quantum, size_t count, bool event_flag) {
  if (count == 0) {
    QUEUE_LOGE("Requested queue size of 0.");
    return nullptr;
  }
  size_t data_bytes = 0;
  // Offsets are 31 bits wide in the descriptor.
  if (__builtin_mul_overflow(count, quantum, &data_bytes) ||
      data_bytes > static_cast<size_t>(INT32_MAX) - kDataOffset - kAlignment) {
    QUEUE_LOGE("Queue size is too large: %zu items of %zu bytes", count, quantum);
    return nullptr;
  }
  std::vector<Grantor> grantors = {MakeGrantor(0, kCounterBytes),
                                   MakeGrantor(kCounterBytes, kCounterBytes),
                                   MakeGrantor(kDataOffset, data_bytes)};
  if (event_flag) grantors.push_back(MakeGrantor(AlignUp(End(grantors[kData])), sizeof(uint32_t)));

  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t bytes = (AlignUp(End(grantors.back())) + page - 1) / page * page;
  ::ndk::ScopedFileDescriptor fd = MakeMemory(bytes);
  if (fd.get() < 0) return nullptr;
  std::unique_ptr<ByteQueue> queue(new ByteQueue(std::move(fd), std::move(grantors), quantum));
  // The writer will fill all pages; one system call for them is cheaper than a fault each.
  return queue->Map(MAP_POPULATE) ? std::move(queue) : nullptr;
}

std::unique_ptr<ByteQueue> ByteQueue::Attach(size_t quantum, const Received& desc, bool reset) {
  if (desc.grantors.empty() || desc.handle.fds.size() != 1) {
    QUEUE_LOGE("MQDescriptor is invalid or queue size is 0.");
    return nullptr;
  }
  const int theirs = desc.handle.fds[0].get();
  const char* fault = Fault(quantum, desc, StableSize(theirs));
  if (fault != nullptr) {
    QUEUE_LOGE("MQDescriptor is refused: %s", fault);
    return nullptr;
  }
  ::ndk::ScopedFileDescriptor fd(fcntl(theirs, F_DUPFD_CLOEXEC, 0));
  if (fd.get() < 0) {
    QUEUE_LOGE("Cannot keep the queue's descriptor: errno %d", errno);
    return nullptr;
  }
  std::unique_ptr<ByteQueue> queue(new ByteQueue(std::move(fd), desc.grantors, quantum));
  // Does not populate: a peer's memory may be large and empty.
  if (!queue->Map(0)) return nullptr;
  if (reset) {
    queue->Counter(kReadCounter).store(0, std::memory_order_release);
    queue->Counter(kWriteCounter).store(0, std::memory_order_release);
  }
  return queue;
}

bool ByteQueue::Map(int flags) {
  size_t bytes = 0;
  for (const Grantor& grantor : grantors_) bytes = std::max(bytes, End(grantor));
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | flags, fd_.get(), 0);
  if (memory == MAP_FAILED) {
    QUEUE_LOGE("Cannot map %zu bytes of queue memory: errno %d", bytes, errno);
    return false;
  }
  memory_ = static_cast<uint8_t*>(memory);
  mapped_bytes_ = bytes;
  return true;
}

bool ByteQueue::Describe(std::vector<Grantor>* grantors, Handle* handle) const {
  ::ndk::ScopedFileDescriptor copy(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
  if (copy.get() < 0) {
    QUEUE_LOGE("Cannot duplicate the queue's descriptor: errno %d", errno);
    return false;
  }
  *grantors = grantors_;
  handle->fds.push_back(std::move(copy));
  return true;
}

std::atomic<uint64_t>& ByteQueue::Counter(size_t grantor) const {
  return *reinterpret_cast<std::atomic<uint64_t>*>(At(grantor));
}

std::atomic<uint32_t>* ByteQueue::event_flag() const {
  if (grantors_.size() <= kEventFlag) return nullptr;
  return reinterpret_cast<std::atomic<uint32_t>*>(At(kEventFlag));
}

// False when the counters contradict each other. Acquires the peer's counter, so that the
// bytes which it covers are visible.
bool ByteQueue::Load(Counters* counters) const {
  // The caller owns one of the two, so that one does not change between the loads.
  const uint64_t written = Counter(kWriteCounter).load(std::memory_order_acquire);
  counters->read = Counter(kReadCounter).load(std::memory_order_acquire);
  counters->used = written - counters->read;
  return counters->used <= capacity() && counters->used % quantum_ == 0;
}

size_t ByteQueue::AvailableToWrite() const {
  Counters now;
  return Load(&now) ? capacity() - static_cast<size_t>(now.used) : 0;
}

size_t ByteQueue::AvailableToRead() const {
  Counters now;
  return Load(&now) ? static_cast<size_t>(now.used) : 0;
}

bool ByteQueue::Write(const void* bytes, size_t count) {
  Counters now;
  if (!Load(&now) || count > capacity() - static_cast<size_t>(now.used)) return false;
  if (count == 0) return true;
  const uint64_t written = now.read + now.used;
  const auto at = static_cast<size_t>(written % capacity());
  const size_t first = std::min(count, capacity() - at);
  std::memcpy(At(kData) + at, bytes, first);
  std::memcpy(At(kData), static_cast<const uint8_t*>(bytes) + first, count - first);
  Counter(kWriteCounter).store(written + count, std::memory_order_release);
  return true;
}

bool ByteQueue::Read(void* bytes, size_t count) {
  Counters now;
  if (!Load(&now) || count > static_cast<size_t>(now.used)) return false;
  if (count == 0) return true;
  const auto at = static_cast<size_t>(now.read % capacity());
  const size_t first = std::min(count, capacity() - at);
  std::memcpy(bytes, At(kData) + at, first);
  std::memcpy(static_cast<uint8_t*>(bytes) + first, At(kData), count - first);
  Counter(kReadCounter).store(now.read + count, std::memory_order_release);
  return true;
}

}  // namespace orb_platform
