// A queue of plain values in shared memory, between one writer and one reader
// that may be in different processes. Writing and reading never block and make
// no system call.
//
// Either end is used by one thread at a time; the two ends may run at once.
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
  // New memory for exactly `numElements` items; of 0 items the queue is invalid.
  explicit AidlMessageQueue(size_t numElements, bool configureEventFlagWord = false)
      : queue_(orb_platform::ByteQueue::Create(sizeof(T), numElements, configureEventFlagWord)) {}
  // A peer's memory. The descriptor is checked as hostile and stays the
  // caller's; a queue from a bad one is invalid. `resetPointers` empties it.
  explicit AidlMessageQueue(const MQDescriptor<T, Flavor>& desc, bool resetPointers = true)
      : queue_(orb_platform::ByteQueue::Attach(
            sizeof(T), {desc.grantors, desc.handle, desc.quantum, desc.flags}, resetPointers)) {}
  AidlMessageQueue(const AidlMessageQueue&) = delete;
  AidlMessageQueue& operator=(const AidlMessageQueue&) = delete;

  // When false, every other call answers 0, false or an empty descriptor.
  bool isValid() const { return queue_ != nullptr; }

  // For the peer, with descriptors of its own.
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

  // All `count` items, or none and false.
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
