// The memory of a message queue, in bytes. AidlMessageQueue adds the type.
//
// memory := read:u64 write:u64 data:u8[capacity] (pad to 8, event flag:u32)?
// The counters count bytes since the queue was emptied and never wrap; a byte
// lies at counter % capacity. The memory is a memfd that can neither shrink nor
// grow, so that a peer cannot pull mapped pages away from under the other.
//
// The peer can write everything in the memory at any time, so every counter is
// read once per call and checked before it is used: a peer that forges counters
// gets wrong data or a refusal, and never an access outside the data.
#pragma once

#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/android/hardware/common/fmq/GrantorDescriptor.h>
#include <android/binder_auto_utils.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace orb_platform {

class ByteQueue {
 public:
  using Grantor = ::aidl::android::hardware::common::fmq::GrantorDescriptor;
  using Handle = ::aidl::android::hardware::common::NativeHandle;

  // A received descriptor, untrusted and borrowed.
  struct Received {
    const std::vector<Grantor>& grantors;
    const Handle& handle;
    int32_t quantum;
    int32_t flags;
  };
  static constexpr int32_t kSynchronizedReadWrite = 1;

  // Null, with a log line, when the memory cannot be had.
  static std::unique_ptr<ByteQueue> Create(size_t quantum, size_t count, bool event_flag);
  // Null, with a log line, when the descriptor differs in form from what Create makes, or
  // reaches outside the memory.
  static std::unique_ptr<ByteQueue> Attach(size_t quantum, const Received& desc, bool reset);
  ~ByteQueue();
  ByteQueue(const ByteQueue&) = delete;
  ByteQueue& operator=(const ByteQueue&) = delete;

  // False when no descriptor is left for the copy.
  bool Describe(std::vector<Grantor>* grantors, Handle* handle) const;

  size_t capacity() const { return static_cast<size_t>(grantors_[kData].extent); }
  // Bytes; both are 0 while the counters contradict each other.
  size_t AvailableToWrite() const;
  size_t AvailableToRead() const;
  // All or nothing.
  bool Write(const void* bytes, size_t count);
  bool Read(void* bytes, size_t count);
  std::atomic<uint32_t>* event_flag() const;

 private:
  enum : size_t { kReadCounter, kWriteCounter, kData, kEventFlag, kMostGrantors };

  struct Counters {
    uint64_t read;
    uint64_t used;  // Bytes written and not read.
  };

  ByteQueue(::ndk::ScopedFileDescriptor fd, std::vector<Grantor> grantors, size_t quantum);
  bool Map(int flags);
  uint8_t* At(size_t grantor) const { return memory_ + grantors_[grantor].offset; }
  std::atomic<uint64_t>& Counter(size_t grantor) const;
  bool Load(Counters* counters) const;

  const ::ndk::ScopedFileDescriptor fd_;
  const std::vector<Grantor> grantors_;
  const size_t quantum_;
  uint8_t* memory_ = nullptr;  // [mapped_bytes_]
  size_t mapped_bytes_ = 0;
};

}  // namespace orb_platform
