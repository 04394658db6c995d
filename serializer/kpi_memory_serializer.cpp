// Start and end of the serializer, and its records. The slots are in
// kpi_memory_serializer_slots.cpp.
// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include "serializer/kpi_memory_serializer.h"

#include <cutils/ashmem.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "proto/kpi_data.pb.h"
#include "serializer/blob_segment_encoder.h"
#include "serializer/serializer_owner.h"
#include "utility/checked.h"
#include "utility/error_text.h"
#include "utility/fd_handle.h"
#include "utility/log.h"
#include "utility/malloc_bytes.h"

using orb::LossCause;

namespace {

constexpr uint32_t kMaskBits = 64;
constexpr char kRegionName[] = "modem_ext_stats";

}  // namespace

KPIMemorySerializer::KPIMemorySerializer() : KPISerializer("KPIMemorySerializer") {
  sizeThreshold = 0xFFFFFFFF;
}

KPIMemorySerializer::~KPIMemorySerializer() {
  KPIMemorySerializer::Abandon();
  orb::MutexLock lock(writerMutex_);
  ReleaseRegion();
}

int KPIMemorySerializer::Initialize(uint32_t size, uint32_t numSlots, SerializerOwner* collector) {
  this->collector = collector;
  tables = collector->tables();
  owner = tables->SlotOwner();
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
    orb::MutexLock lock(writerMutex_);
    ReleaseRegion();
    fd.reset();
    return -5;
  }
  regionToken = handle->fdToken;
  Enlist();
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
  orb::MutexLock lock(writerMutex_);
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
  // Other threads of the client may change its array meanwhile, but measuring and encoding
  // must see the same lengths. So both read a copy.
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
  orb::MutexLock lock(writerMutex_);
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

void KPIMemorySerializer::Abandon() {
  orb::MutexLock lock(writerMutex_);
  if (currentSlot != kNoSlot && !currentSent) {
    const Tally dropped = TakeCurrent();
    if (!dropped.empty()) collector->ledger().Lost(owner, LossCause::kDropped, dropped);
  }
  LoseAnnounced();
}

bool KPIMemorySerializer::AdoptInChild() {
  pendingCv_.ForgetWaiters();
  if (!writerMutex_.IsFree() || !pendingMutex_.IsFree()) return false;
  // The announced slots and their completions belong to the parent.
  slotCount = 0;
  free(handle);
  handle = nullptr;
  return true;
}

int KPIMemorySerializer::Flush() {
  orb::MutexLock lock(writerMutex_);
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
  orb::MutexLock lock(pendingMutex_);
  return {pendingCount, pendingMax, 0, owner, currentRecords, currentSamples, currentBytes};
}

void KPIMemorySerializer::wait_for_pending_slots() {
  orb::MutexLock lock(pendingMutex_);
  LOGD("%s::%s: nof_slots_sent_pending: %d before waiting", name, "wait_for_pending_slots",
       static_cast<int>(pendingCount));
  while (pendingCount != 0) pendingCv_.Wait(pendingMutex_);
}

int KPIMemorySerializer::Finalize() {
  orb::MutexLock lock(writerMutex_);
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
    Delist();
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
