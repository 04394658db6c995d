// Records go to slots of a shared region that the HAL reads; slot i starts at
// i * slotSize. States: docs/formats/slots.md.
//
//   free -> current (being filled) -> announced -> free (completion, death of
//   the HAL, or at once when the HAL refused)
//
// Life: constructed -> Initialize() -> records and flushes -> Finalize(),
// which waits for a living HAL -> destroyed.
//
// Threads: writers are serialized by writerMutex, which is held while a slot is
// announced. Completions come on threads of the HAL's binder pool, possibly
// before the announcement has returned, and take leaf locks only.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "ledger/delivery_ledger.h"
#include "serializer/kpi_serializer.h"
#include "utility/thread_annotations.h"
#include "utility/unique_fd.h"

struct kiv_fd_handle_s;

class KPIMemorySerializer : public KPISerializer {
 public:
  KPIMemorySerializer();
  // Without Finalize: announces and waits for nothing, but takes the region back.
  ~KPIMemorySerializer() override;

  // `size` bytes in all, cut into numSlots of equal size, the remainder unused.
  // 0; -2 more than 64 slots, -3 no region, -4 no mapping, -5 the HAL refused.
  int Initialize(uint32_t size, uint32_t numSlots, SerializerOwner* collector)
      ORB_EXCLUDES(writerMutex);

  // One record each. 0; -1 when there is no room for it (or it cannot be
  // encoded); else what announcing the slot before it gave, whose records are lost then.
  int Write(orbtr::KPIData& data, unsigned int kpiId) override ORB_EXCLUDES(writerMutex);
  int WriteBuf(const unsigned char* buf, unsigned int len) override ORB_EXCLUDES(writerMutex);
  int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                             unsigned int numSamples, const kiv_blob_segment_t* segs,
                             unsigned int count) override ORB_EXCLUDES(writerMutex);

  // Slots have no thresholds to change.
  void UpdateConfig(kiv_param_type_t, unsigned int) override {}

  // Announces the current slot if it holds anything. The HAL's result; -1 when
  // no slot is free to go on with.
  int Flush() override ORB_EXCLUDES(writerMutex);

  Backlog backlog() override ORB_EXCLUDES(pendingMutex);

  // Announces what is left, waits until the HAL has consumed every slot or has died,
  // for ever if need be, and closes the channel. The result of closing it.
  int Finalize() override ORB_EXCLUDES(writerMutex);

  // What is not announced is lost; so is, as far as is known, what the HAL still has.
  void Abandon() override ORB_EXCLUDES(writerMutex);
  bool AdoptInChild() override ORB_EXCLUDES(writerMutex, pendingMutex);

  // The HAL has consumed the slot at this byte offset of the region.
  static int WriteDone(kiv_fd_handle_s* handle, uint32_t offset, uint32_t, int);

  // The HAL that has this region died, so it confirms nothing any more: its slots are
  // free and their records lost. Later completions are ignored; so is a handle that is
  // no serializer's. Takes leaves only, and does not look into the handle.
  static void RegionLost(const kiv_fd_handle_s* handle);

 private:
  static constexpr uint32_t kNoSlot = 0xFFFFFFFF;

  int CreateRegion(uint32_t size);
  // Makes the lowest free slot current. 0, or -2 when none of the first 31 is free.
  int GetNewSlot() ORB_REQUIRES(writerMutex);
  // Writes one record of len bytes, which counts `samples`.
  int Append(const void* record, uint32_t len, uint64_t samples) ORB_EXCLUDES(writerMutex);
  // Makes room for len bytes; `operation` is for the log. 0, or -1 when there is
  // none and the record is lost; *sent is what announcing the slot before gave.
  // A record that cannot be placed because of its length has announced nothing.
  int MakeRoom(uint32_t len, uint64_t samples, const char* operation, int* sent)
      ORB_REQUIRES(writerMutex);
  // The lowest slot that `taken` has no bit of and that may be used, or kNoSlot.
  uint32_t LowestFreeSlot(uint64_t taken) const;
  // Bytes from the slot's start to the end of the region.
  uint64_t RegionBytesFrom(uint32_t slot) const;
  // What the current slot holds, which is counted elsewhere from now on.
  Tally TakeCurrent() ORB_REQUIRES(writerMutex);
  void RecordWritten(uint32_t len, uint64_t samples, const char* operation)
      ORB_REQUIRES(writerMutex);
  void BookLoss(orb::LossCause cause, uint64_t bytes, uint64_t samples) const;
  // Announces the current slot. Non-zero: refused, the slot is free again and no
  // longer current.
  int SendCurrent() ORB_REQUIRES(writerMutex);
  int SendSlot(int slot, int size) ORB_REQUIRES(writerMutex);
  // Frees a slot that was taken but never announced.
  int FreeSlot(int slot) ORB_REQUIRES(writerMutex);
  // Ends the announcement of the slot at `offset`; ignored unless it is announced.
  int FreeSlot(uint32_t offset, uint32_t, uint32_t) ORB_EXCLUDES(pendingMutex);
  // The same; its records have arrived, or are lost.
  void EndAnnouncement(uint32_t slot, std::optional<orb::LossCause> lost)
      ORB_EXCLUDES(pendingMutex);
  // Nobody waits for the HAL's word on its slots any more.
  void LoseAnnounced() ORB_EXCLUDES(pendingMutex);
  // Lets completions find this serializer by its handle, or not any more.
  void Enlist();
  void Delist();
  // The slot's name in the ledger.
  std::string ParcelOf(uint32_t slot) const;
  void wait_for_pending_slots() ORB_EXCLUDES(pendingMutex);
  // Closes the channel and unmaps. What closing gave; 0 when there is none.
  int ReleaseRegion() ORB_REQUIRES(writerMutex);

  // Set by Initialize before the region is announced, constant while it is.
  orb::UniqueFd fd;
  uint8_t* base = nullptr;
  uint32_t totalSize = 0;  // Bytes.
  uint32_t slotSize = 0;   // Bytes.
  uint32_t slotCount = 0;
  uint64_t owner = 0;                 // LicSN of all records.
  kiv_fd_handle_s* handle = nullptr;  // Owned from SetFD on.
  uint32_t regionToken = 0;           // As it was at SetFD, for the ledger.

  orb::Mutex writerMutex;
  uint32_t currentSlot ORB_GUARDED_BY(writerMutex) = kNoSlot;
  uint8_t* currentPtr ORB_GUARDED_BY(writerMutex) = nullptr;
  uint32_t bytesWritten ORB_GUARDED_BY(writerMutex) = 0;
  // Changed under writerMutex; atomic for backlog(), which must not wait for it.
  std::atomic<uint64_t> currentRecords{0};
  std::atomic<uint64_t> currentSamples{0};
  std::atomic<uint64_t> currentBytes{0};
  bool currentSent ORB_GUARDED_BY(writerMutex) = false;  // It may be the HAL's, leave it alone.

  // One bit a slot. Writers only set bits, under writerMutex; completions only clear them.
  std::atomic<uint64_t> slotMask{0};   // Current or announced.
  std::atomic<uint64_t> announced{0};  // Counted in pendingCount.

  orb::Mutex pendingMutex;
  orb::CondVar pendingCv;
  uint32_t pendingCount ORB_GUARDED_BY(pendingMutex) = 0;
  uint32_t pendingMax ORB_GUARDED_BY(pendingMutex) = 0;
};
