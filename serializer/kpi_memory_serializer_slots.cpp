// How slots of the region are taken, announced and given back.
// Tested by tests/serializer/kpi_memory_serializer_test.cpp.
#include <algorithm>
#include <bit>
#include <chrono>
#include <map>
#include <string>

#include "serializer/kpi_memory_serializer.h"
#include "serializer/serializer_owner.h"
#include "utility/checked.h"
#include "utility/clock.h"
#include "utility/fd_handle.h"
#include "utility/log.h"

using orb::LossCause;

namespace {

constexpr uint32_t kUsableSlots = 31;  // GetNewSlot says why.

unsigned long long MonotonicMs() {
  const auto now = orb::Clock::Steady().time_since_epoch();
  return static_cast<unsigned long long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

uint64_t BitOf(uint32_t slot) { return uint64_t{1} << slot; }

// Finds the serializer that a completion is for. An entry exists until its serializer gives
// up the region and is used under the mutex only, so no completion uses a serializer that was
// destroyed. This object is never destroyed, because completions may come until the process
// ends.
struct Serializers {
  orb::Mutex mutex;
  std::map<const kiv_fd_handle_s*, KPIMemorySerializer*> by_handle ORB_GUARDED_BY(mutex);
};

Serializers& AllSerializers() {
  static auto* all = new Serializers;
  return *all;
}

}  // namespace

int KPIMemorySerializer::GetNewSlot() {
  const uint64_t mask = slotMask;
  LOGE("SLOT_USAGE: %x", static_cast<unsigned int>(mask));
  // The lowest free slot as a bit of 32, the width that receivers and logs use. Therefore
  // slots 31 and above are never used.
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
  // A record longer than a slot also takes the slots after it. Only completions change the
  // mask meanwhile, and they can only make a lower slot the lowest free one.
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
  // The slot is counted before it is announced, because its completion may come before the
  // announcement returns.
  {
    orb::MutexLock lock(pendingMutex_);
    pendingCount = orb::CheckedAdd<uint32_t>(pendingCount, 1);
    pendingMax = std::max(pendingMax, pendingCount);
  }
  collector->ledger().Written(owner, TakeCurrent());
  collector->ledger().Close(owner, ShipmentOf(static_cast<uint32_t>(slot)));
  announced.fetch_or(BitOf(static_cast<uint32_t>(slot)));
  const int result = collector->FdWrite(handle->fdToken, 0, offset, static_cast<uint32_t>(size));
  if (result != 0) {
    LOGE("SendSlot failed - dropping data");
    EndAnnouncement(static_cast<uint32_t>(slot), LossCause::kSlotRefused);
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

void KPIMemorySerializer::RegionLost(const kiv_fd_handle_s* handle) {
  Serializers& all = AllSerializers();
  orb::MutexLock lock(all.mutex);
  const auto it = all.by_handle.find(handle);
  if (it == all.by_handle.end()) return;
  KPIMemorySerializer* const serializer = it->second;
  // This comes first: otherwise a completion on its way could free a slot in its next use.
  all.by_handle.erase(it);
  // The handle has lost its token, so announcements after this are refused.
  serializer->LoseAnnounced();
}

void KPIMemorySerializer::LoseAnnounced() {
  const uint64_t at_hal = announced;
  for (uint32_t slot = 0; slot < kUsableSlots; ++slot) {
    if ((at_hal & BitOf(slot)) != 0) EndAnnouncement(slot, LossCause::kUnconfirmed);
  }
}

void KPIMemorySerializer::Enlist() {
  Serializers& all = AllSerializers();
  orb::MutexLock lock(all.mutex);
  all.by_handle[handle] = this;
}

void KPIMemorySerializer::Delist() {
  Serializers& all = AllSerializers();
  orb::MutexLock lock(all.mutex);
  all.by_handle.erase(handle);
}

int KPIMemorySerializer::FreeSlot(int slot) {
  LOGI("LTC-Profiling: Free Slot %d Timestamp: %llu", slot, MonotonicMs());
  slotMask.fetch_and(~BitOf(static_cast<uint32_t>(slot)));
  return 0;
}

int KPIMemorySerializer::FreeSlot(uint32_t offset, uint32_t, uint32_t) {
  if (slotSize != 0) EndAnnouncement(offset / slotSize, std::nullopt);
  return 0;
}

void KPIMemorySerializer::EndAnnouncement(uint32_t slot, std::optional<LossCause> lost) {
  if (slot >= slotCount) return;
  LOGI("LTC-Profiling: Free Slot %d Timestamp: %llu", static_cast<int>(slot), MonotonicMs());
  // Only one caller for each announcement passes this: a second completion must not free a
  // slot that is being filled again.
  const uint64_t bit = BitOf(slot);
  if ((announced.fetch_and(~bit) & bit) == 0) return;
  // The ledger comes before the slot can be filled again and before the session can end.
  collector->ledger().Settle(ShipmentOf(slot), lost);
  slotMask.fetch_and(~bit);
  orb::MutexLock lock(pendingMutex_);
  pendingCount = orb::CheckedSub<uint32_t>(pendingCount, 1);
  pendingCv_.NotifyAll();
}

Tally KPIMemorySerializer::TakeCurrent() {
  return {currentRecords.exchange(0), currentSamples.exchange(0), currentBytes.exchange(0)};
}

std::string KPIMemorySerializer::ShipmentOf(uint32_t slot) const {
  // At most 13 characters: a string as short as this allocates nothing, so a completion
  // cannot fail for lack of memory.
  return std::to_string(regionToken) + '/' + std::to_string(slot);
}
