// A queue of plain values in shared memory, between one writer and one reader
// that may be in different processes. Writing and reading never block and make
// no system call.
//
// One thread at a time may use an end; the two ends may run concurrently.
#pragma once

#include <aidl/android/hardware/common/fmq/MQDescriptor.h>
#include <aidl/android/hardware/common/fmq/SynchronizedReadWrite.h>
#include <aidl/android/hardware/common/fmq/UnsynchronizedWrite.h>
#include <orb_platform/byte_queue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace android {

using aidl::android::hardware::common::fmq::MQDescriptor;
using aidl::android::hardware::common::fmq::SynchronizedReadWrite;
using aidl::android::hardware::common::fmq::UnsynchronizedWrite;

template <typename T, typename Flavor>
class AidlMessageQueue final {
  static_assert(std::is_arithmetic_v<T> || std::is_enum_v<T>, "plain values only");
  static_assert(std::is_same_v<Flavor, SynchronizedReadWrite>,
                "this platform has the synchronized flavour only");

 public:
  // Makes memory for exactly `numElements` items. A queue of 0 items is invalid.
  explicit AidlMessageQueue(size_t numElements, bool configureEventFlagWord = false)
      : queue_(orb_platform::ByteQueue::Create(sizeof(T), numElements, configureEventFlagWord)) {}
  // Maps a peer's memory. The descriptor is not trusted and stays the caller's; with a bad
  // one the queue is invalid. `resetPointers` empties the queue.
  explicit AidlMessageQueue(const MQDescriptor<T, Flavor>& desc, bool resetPointers = true)
      : queue_(orb_platform::ByteQueue::Attach(
            sizeof(T), {desc.grantors, desc.handle, desc.quantum, desc.flags}, resetPointers)) {}
  AidlMessageQueue(const AidlMessageQueue&) = delete;
  AidlMessageQueue& operator=(const AidlMessageQueue&) = delete;

  // When false, every other function returns 0, false or an empty descriptor.
  bool isValid() const { return queue_ != nullptr; }

  // Describes the queue for the peer, with duplicated descriptors.
  MQDescriptor<T, Flavor> dupeDesc() const {
    MQDescriptor<T, Flavor> desc;
    if (queue_ == nullptr || !queue_->Describe(&desc.grantors, &desc.handle)) return {};
    desc.quantum = static_cast<int32_t>(sizeof(T));
    desc.flags = orb_platform::ByteQueue::kSynchronizedReadWrite;
    return desc;
  }

  size_t getQuantumSize() const { return sizeof(T); }
  // Capacity in items.
  size_t getQuantumCount() const { return queue_ ? queue_->capacity() / sizeof(T) : 0; }
  // Items.
  size_t availableToWrite() const { return queue_ ? queue_->AvailableToWrite() / sizeof(T) : 0; }
  size_t availableToRead() const { return queue_ ? queue_->AvailableToRead() / sizeof(T) : 0; }

  // Each moves all `count` items, or none and returns false.
  bool write(const T* items, size_t count = 1) {
    size_t bytes = 0;
    return queue_ != nullptr && items != nullptr &&
           !__builtin_mul_overflow(count, sizeof(T), &bytes) && queue_->Write(items, bytes);
  }
  bool read(T* items, size_t count = 1) {
    size_t bytes = 0;
    return queue_ != nullptr && items != nullptr &&
           !__builtin_mul_overflow(count, sizeof(T), &bytes) && queue_->Read(items, bytes);
  }

  // Null unless the queue was made with an event flag word.
  std::atomic<uint32_t>* getEventFlagWord() const {
    return queue_ ? queue_->event_flag() : nullptr;
  }

 private:
  const std::unique_ptr<orb_platform::ByteQueue> queue_;
};

}  // namespace android
