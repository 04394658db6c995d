// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include "serializer/kpi_memory_serializer.h"

#include <cutils/ashmem.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "collector/clock.h"
#include "collector/kiv_collector.h"
#include "proto/kpi_data.pb.h"
#include "serializer/blob_segment_encoder.h"
#include "utility/checked.h"
#include "utility/error_text.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

using orb::LossCause;

namespace {

constexpr uint32_t kMaskBits = 64;
constexpr uint32_t kUsableSlots = 31;  // See GetNewSlot.
constexpr char kRegionName[] = "modem_ext_stats";

unsigned long long MonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1000 +
         static_cast<unsigned long long>(now.tv_nsec) / 1000000;
}

uint64_t BitOf(uint32_t slot) { return uint64_t{1} << slot; }

// Which serializer a completion is for. An entry stays until its serializer is
// done with the region, and is used only under the mutex, so no completion
// meets a serializer that is gone. Never destroyed: completions may come until
// the process ends.
struct Serializers {
  orb::Mutex mutex;
  std::map<kiv_fd_handle_s*, KPIMemorySerializer*> by_handle ORB_GUARDED_BY(mutex);
};

Serializers& AllSerializers() {
  static auto* all = new Serializers;
  return *all;
}

}  // namespace

KPIMemorySerializer::KPIMemorySerializer() : KPISerializer("KPIMemorySerializer") {
  sizeThreshold = 0xFFFFFFFF;
}

KPIMemorySerializer::~KPIMemorySerializer() {
  KPIMemorySerializer::Abandon();
  orb::MutexLock lock(writerMutex);
  ReleaseRegion();
}

int KPIMemorySerializer::Initialize(uint32_t size, uint32_t numSlots, kiv_collector* collector) {
  this->collector = collector;
  owner = collector->SlotOwner();
  if (numSlots > kMaskBits) {
    LOGE("%s::%s: num_slots %d greater than bitmask field %d", name, "Initialize",
         static_cast<int>(numSlots), static_cast<int>(kMaskBits));
    return -2;
  }
  const int status = CreateRegion(size);
  if (status != 0) return status;
  slotCount = numSlots;
  slotSize = numSlots == 0 ? 0 : size / numSlots;
  handle = collector->SetFD(fd.get(), 0, size, WriteDone);
  if (handle == nullptr) {
    LOGE("%s::%s: SetFD failed", name, "Initialize");
    orb::MutexLock lock(writerMutex);
    ReleaseRegion();
    fd.reset();
    return -5;
  }
  {
    Serializers& all = AllSerializers();
    orb::MutexLock lock(all.mutex);
    all.by_handle[handle] = this;
  }
  LOGI("%s::%s: Initialized", name, "Initialize");
  return 0;
}

int KPIMemorySerializer::CreateRegion(uint32_t size) {
  const int region = ashmem_create_region(kRegionName, size);
  if (region < 0) {
    LOGE("%s::%s: Failed to allocate fd with size %d status: %d", name, "Initialize",
         static_cast<int>(size), region);
    return -3;
  }
  fd.reset(region);
  fcntl(region, F_SETFD, FD_CLOEXEC);
  void* mapped = mmap(nullptr, size, PROT_WRITE, MAP_SHARED, region, 0);
  if (mapped == MAP_FAILED) {
    LOGE("%s::%s: Failed to mmap fd %d size %d err: %s", name, "Initialize", region,
         static_cast<int>(size), orb::ErrorText(errno).c_str());
    fd.reset();
    return -4;
  }
  base = static_cast<uint8_t*>(mapped);
  totalSize = size;
  return 0;
}

int KPIMemorySerializer::Write(orbtr::KPIData& data, unsigned int) {
  const std::string record = data.SerializeAsString();
  return Append(record.data(), orb::CheckedCast<uint32_t>(record.size()), SamplesOf(data));
}

int KPIMemorySerializer::WriteBuf(const unsigned char* buf, unsigned int len) {
  return Append(buf, len, 0);
}

int KPIMemorySerializer::Append(const void* record, uint32_t len, uint64_t samples) {
  orb::MutexLock lock(writerMutex);
  int sent = 0;
  if (MakeRoom(len, samples, "WriteBuf", &sent) != 0) return -1;
  if (len != 0) memcpy(currentPtr + bytesWritten, record, len);
  RecordWritten(len, samples, "WriteBuf");
  return sent;
}

int KPIMemorySerializer::WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart,
                                                uint64_t tsEnd, unsigned int numSamples,
                                                const kiv_blob_segment_t* segs,
                                                unsigned int count) {
  // Measuring and encoding must see the same lengths, whatever the client's
  // other threads do to its array meanwhile.
  orb::MallocBytes copy;
  copy.size = uint64_t{count} * sizeof *segs;
  copy.data = static_cast<uint8_t*>(malloc(std::max<uint64_t>(copy.size, 1)));
  if (copy.data == nullptr) {
    LOGE("%s::%s: malloc failed ", name, "WriteBlobSegsOptimized");
    BookLoss(LossCause::kMemory, 0, 1);
    return -1;
  }
  if (copy.size != 0) memcpy(copy.data, segs, copy.size);
  BlobSegmentEncoder encoder({kpiId, tsStart, tsEnd, numSamples},
                             reinterpret_cast<const kiv_blob_segment_t*>(copy.data), count);
  size_t bytes = 0;
  int sent = 0;
  bool encoded = encoder.Measure(&bytes);
  orb::MutexLock lock(writerMutex);
  if (encoded) {
    const auto len = orb::CheckedCast<uint32_t>(bytes);
    if (MakeRoom(len, 1, "WriteBlobSegsOptimized", &sent) != 0) return -1;
    encoded = encoder.Encode(currentPtr + bytesWritten, bytes);
  }
  if (!encoded) {
    LOGE("%s::%s:Encoding failed Reason: %s", name, "WriteBlobSegsOptimized", encoder.reason());
    BookLoss(LossCause::kEncode, 0, 1);
    return -1;
  }
  RecordWritten(static_cast<uint32_t>(bytes), 1, "WriteBlobSegsOptimized");
  return sent;
}

int KPIMemorySerializer::GetNewSlot() {
  const uint64_t mask = slotMask;
  LOGE("SLOT_USAGE: %x", static_cast<unsigned int>(mask));
  // The lowest free slot as a bit. In 32 bits, as receivers and logs know it:
  // slots 31 and above are never handed out.
  const auto n = static_cast<int32_t>(orb::CheckedAdd<uint64_t>(mask, 1) & ~mask);
  LOGE("SLOT_USAGE: n %d", n);
  if (n < 1) {
    LOGE("%s::%s: Failed to get free slot", name, "GetNewSlot");
    return -2;
  }
  const auto slot = static_cast<uint32_t>(__builtin_ctz(static_cast<uint32_t>(n)));
  LOGE("SLOT_USAGE: slot %d", static_cast<int>(slot));
  if (slot >= slotCount) {
    LOGE("%s::%s: Failed to get free slot", name, "GetNewSlot");
    return -2;
  }
  LOGI("%s::%s: Free Slot found %d", name, "GetNewSlot", static_cast<int>(slot));
  currentSlot = slot;
  slotStartMs = veskstats_real_time_ms();
  currentPtr = base + size_t{slot} * slotSize;
  bytesWritten = 0;
  currentSent = false;
  slotMask.fetch_or(BitOf(slot));
  return 0;
}

int KPIMemorySerializer::MakeRoom(uint32_t len, uint64_t samples, const char* operation,
                                  int* sent) {
  const bool filling = currentSlot != kNoSlot && !currentSent;
  if (filling && orb::CheckedAdd<uint32_t>(bytesWritten, len) <= slotSize) return 0;
  const bool empty = filling && bytesWritten == 0;
  if (empty && len <= RegionBytesFrom(currentSlot)) return 0;
  // A record longer than a slot needs the slots behind it, too. Only completions
  // change the mask meanwhile, and they can only make a lower slot the lowest free one.
  const uint32_t next = LowestFreeSlot(empty ? slotMask & ~BitOf(currentSlot) : slotMask.load());
  if (len > slotSize && next != kNoSlot && len > RegionBytesFrom(next)) {
    LOGE("%s::%s: record of %u bytes does not fit", name, operation, len);
    BookLoss(LossCause::kOversize, len, samples);
    return -1;
  }
  bool ready = len <= slotSize || next != kNoSlot;
  if (ready) {
    if (empty) {
      FreeSlot(static_cast<int>(currentSlot));
    } else if (filling) {
      *sent = SendCurrent();
      if (*sent < 0) LOGE("%s::%s: SendSlot failed", name, operation);
    }
    ready = GetNewSlot() == 0;
  }
  if (ready) return 0;
  LOGE("%s::%s: Failed to get free slot", name, operation);
  BookLoss(LossCause::kNoSlot, len, samples);
  return -1;
}

uint32_t KPIMemorySerializer::LowestFreeSlot(uint64_t taken) const {
  const auto lowest = static_cast<uint32_t>(std::countr_one(taken));
  return lowest < std::min(slotCount, kUsableSlots) ? lowest : kNoSlot;
}

uint64_t KPIMemorySerializer::RegionBytesFrom(uint32_t slot) const {
  return totalSize - uint64_t{slot} * slotSize;
}

void KPIMemorySerializer::BookLoss(LossCause cause, uint64_t bytes, uint64_t samples) const {
  collector->ledger().Lost(owner, cause, {1, samples, bytes});
}

void KPIMemorySerializer::RecordWritten(uint32_t len, uint64_t samples, const char* operation) {
  bytesWritten = orb::CheckedAdd<uint32_t>(bytesWritten, len);
  const auto add = [](std::atomic<uint64_t>* to, uint64_t more) {
    to->store(orb::CheckedAdd<uint64_t>(to->load(std::memory_order_relaxed), more),
              std::memory_order_relaxed);
  };
  add(&currentRecords, 1);
  add(&currentSamples, samples);
  add(&currentBytes, len);
  LOGD("%s::%s: curr_slot_ptr %p curr_bytes_written %d size %d fd_buf_ptr %p", name, operation,
       static_cast<void*>(currentPtr), static_cast<int>(bytesWritten), static_cast<int>(len),
       static_cast<void*>(base));
}

int KPIMemorySerializer::SendCurrent() {
  const int result = SendSlot(static_cast<int>(currentSlot), static_cast<int>(bytesWritten));
  if (result == 0) {
    currentSent = true;
  } else {
    currentSlot = kNoSlot;
  }
  return result;
}

int KPIMemorySerializer::SendSlot(int slot, int size) {
  LOGI("LTC-Profiling: Send Slot %d Size: %d Timestamp: %llu", slot, size, MonotonicMs());
  const uint32_t offset = orb::CheckedCast<uint32_t>(static_cast<uint64_t>(slot) * slotSize);
  // Counted before it is announced: the completion may be faster than the answer.
  {
    orb::MutexLock lock(pendingMutex);
    pendingCount = orb::CheckedAdd<uint32_t>(pendingCount, 1);
    pendingMax = std::max(pendingMax, pendingCount);
  }
  collector->ledger().Written(owner, TakeCurrent());
  collector->ledger().Close(owner, ParcelOf(static_cast<uint32_t>(slot)));
  announced.fetch_or(BitOf(static_cast<uint32_t>(slot)));
  const int result = collector->FdWrite(handle->fdToken, 0, offset, static_cast<uint32_t>(size));
  if (result != 0) {
    LOGE("SendSlot failed - dropping data");
    EndAnnouncement(offset, LossCause::kSlotRefused);
  }
  return result;
}

int KPIMemorySerializer::WriteDone(kiv_fd_handle_s* handle, uint32_t offset, uint32_t x, int y) {
  Serializers& all = AllSerializers();
  orb::MutexLock lock(all.mutex);
  const auto it = all.by_handle.find(handle);
  if (it != all.by_handle.end()) it->second->FreeSlot(offset, x, static_cast<uint32_t>(y));
  return 0;
}

int KPIMemorySerializer::FreeSlot(int slot) {
  LOGI("LTC-Profiling: Free Slot %d Timestamp: %llu", slot, MonotonicMs());
  slotMask.fetch_and(~BitOf(static_cast<uint32_t>(slot)));
  return 0;
}

int KPIMemorySerializer::FreeSlot(uint32_t offset, uint32_t, uint32_t) {
  EndAnnouncement(offset, std::nullopt);
  return 0;
}

void KPIMemorySerializer::EndAnnouncement(uint32_t offset, std::optional<LossCause> lost) {
  const uint32_t slot = slotSize == 0 ? kMaskBits : offset / slotSize;
  if (slot >= slotCount) return;
  LOGI("LTC-Profiling: Free Slot %d Timestamp: %llu", static_cast<int>(slot), MonotonicMs());
  // One caller per announcement gets past this: a second completion must not
  // free a slot that is being filled again.
  const uint64_t bit = BitOf(slot);
  if ((announced.fetch_and(~bit) & bit) == 0) return;
  // Before the slot can be filled again, and before the session can end.
  collector->ledger().Settle(ParcelOf(slot), lost);
  slotMask.fetch_and(~bit);
  orb::MutexLock lock(pendingMutex);
  pendingCount = orb::CheckedSub<uint32_t>(pendingCount, 1);
  pendingCv.NotifyAll();
}

std::string KPIMemorySerializer::ParcelOf(uint32_t slot) const {
  return "region " + std::to_string(handle->fdToken) + " slot " + std::to_string(slot);
}

void KPIMemorySerializer::Abandon() {
  orb::MutexLock lock(writerMutex);
  if (currentSlot != kNoSlot && !currentSent) {
    const Tally dropped = TakeCurrent();
    if (!dropped.empty()) collector->ledger().Lost(owner, LossCause::kDropped, dropped);
  }
  for (uint32_t slot = 0; slot < slotCount; ++slot) {
    if ((announced.fetch_and(~BitOf(slot)) & BitOf(slot)) == 0) continue;
    collector->ledger().Settle(ParcelOf(slot), LossCause::kUnconfirmed);
  }
}

int KPIMemorySerializer::Flush() {
  orb::MutexLock lock(writerMutex);
  if (currentSlot == kNoSlot || bytesWritten == 0) return 0;
  const int sent = currentSent ? 0 : SendCurrent();
  if (sent != 0) LOGE("%s::%s: SendSlot failed", name, "Flush");
  if (GetNewSlot() != 0) {
    LOGE("%s::%s: Failed to get free slot", name, "Flush");
    return -1;
  }
  return sent;
}

KPISerializer::Backlog KPIMemorySerializer::backlog() {
  orb::MutexLock lock(pendingMutex);
  return {pendingCount, pendingMax, 0, owner, currentRecords, currentSamples, currentBytes};
}

Tally KPIMemorySerializer::TakeCurrent() {
  return {currentRecords.exchange(0), currentSamples.exchange(0), currentBytes.exchange(0)};
}

void KPIMemorySerializer::wait_for_pending_slots() {
  orb::MutexLock lock(pendingMutex);
  LOGD("%s::%s: nof_slots_sent_pending: %d before waiting", name, "wait_for_pending_slots",
       static_cast<int>(pendingCount));
  while (pendingCount != 0) pendingCv.Wait(pendingMutex);
}

int KPIMemorySerializer::Finalize() {
  orb::MutexLock lock(writerMutex);
  if (currentSlot != kNoSlot && !currentSent) {
    if (bytesWritten != 0) {
      SendCurrent();
    } else {
      FreeSlot(static_cast<int>(currentSlot));
    }
  }
  wait_for_pending_slots();
  collector->NoteQueueDepth(backlog().depth_max);
  const uint64_t mask = slotMask;
  LOGI("%s::%s: current slot usage 0x%x", name, "Finalize", static_cast<unsigned int>(mask));
  if (mask != 0) LOGE("%s::%s: Error! not all slots are free'ed", name, "Finalize");
  const int status = ReleaseRegion();
  if (status < 0) {
    LOGE("%s::%s: failed to delete session - status: %d", name, "Finalize", status);
  }
  return status;
}

int KPIMemorySerializer::ReleaseRegion() {
  int status = 0;
  if (handle != nullptr) {
    status = collector->UnsetFD(handle, handle->fdToken);
    Serializers& all = AllSerializers();
    orb::MutexLock lock(all.mutex);
    all.by_handle.erase(handle);
  }
  free(handle);
  handle = nullptr;
  currentSlot = kNoSlot;
  currentPtr = nullptr;
  bytesWritten = 0;
  slotMask = 0;
  announced = 0;
  slotCount = 0;
  if (base != nullptr) munmap(base, totalSize);
  base = nullptr;
  totalSize = 0;
  return status;
}
