// Writes records to slots of a shared region that the HAL reads. Slot i starts at
// i * slotSize. docs/formats/slots.md explains the states of a slot:
//
//   free -> current (being filled) -> announced -> free (when the HAL completed it, died, or
//   refused it)
//
// Life: constructed -> Initialize() -> records and flushes -> Finalize(),
// which waits for a living HAL -> destroyed.
//
// A writer holds writerMutex_, also while it announces a slot. Completions come on threads of
// the HAL's binder pool, possibly before the announcement has returned. They take leaf locks
// only.
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
  // When Finalize was not called: takes the region back, but announces nothing and waits for
  // nothing.
  ~KPIMemorySerializer() override;

  // Makes a region of `size` bytes and divides it into numSlots slots of equal size; the
  // remainder is unused. Returns 0, -2 for more than 64 slots, -3 when the region or -4 when
  // its mapping cannot be made, -5 when the HAL refuses it.
  int Initialize(uint32_t size, uint32_t numSlots, SerializerOwner* collector)
      ORB_EXCLUDES(writerMutex_);

  // Each writes one record. Returns 0; -1 when there is no room for it or it cannot be encoded.
  // Another value is the HAL's error for the previous slot: that slot's records are lost.
  int Write(orbtr::KPIData& data, unsigned int kpiId) override ORB_EXCLUDES(writerMutex_);
  int WriteBuf(const unsigned char* buf, unsigned int len) override ORB_EXCLUDES(writerMutex_);
  int WriteBlobSegsOptimized(unsigned int kpiId, uint64_t tsStart, uint64_t tsEnd,
                             unsigned int numSamples, const kiv_blob_segment_t* segs,
                             unsigned int count) override ORB_EXCLUDES(writerMutex_);

  // Does nothing, because slots have no thresholds.
  void UpdateConfig(kiv_param_type_t, unsigned int) override {}

  // Announces the current slot when it holds a record. Returns the HAL's result, or -1 when no
  // slot is free for the next record.
  int Flush() override ORB_EXCLUDES(writerMutex_);

  Backlog backlog() override ORB_EXCLUDES(pendingMutex_);

  // Announces the current slot, waits without limit until the HAL has consumed every slot or
  // has died, and closes the channel. Returns the result of closing it.
  int Finalize() override ORB_EXCLUDES(writerMutex_);

  // Counts the records of the current slot as lost, and also those that the HAL still has.
  void Abandon() override ORB_EXCLUDES(writerMutex_);
  bool AdoptInChild() override ORB_EXCLUDES(writerMutex_, pendingMutex_);

  // Called when the HAL has consumed the slot at this byte offset of the region.
  static int WriteDone(kiv_fd_handle_s* handle, uint32_t offset, uint32_t, int);

  // Called when the HAL that has this region died. Its slots become free and their records are
  // lost. Ignores a handle that no serializer has, and later completions. Takes leaf locks
  // only and does not read the handle.
  static void RegionLost(const kiv_fd_handle_s* handle);

 private:
  static constexpr uint32_t kNoSlot = 0xFFFFFFFF;

  int CreateRegion(uint32_t size);
  // Makes the lowest free slot current. 0, or -2 when none of the first 31 is free.
  int GetNewSlot() ORB_REQUIRES(writerMutex_);
  // Writes one record of len bytes that counts that many samples.
  int Append(const void* record, uint32_t len, uint64_t samples) ORB_EXCLUDES(writerMutex_);
  // Makes room for len bytes; `operation` is for the log. Returns 0, or -1 when there is no
  // room and the record is lost. *sent is the result of announcing the previous slot. A record
  // that is too long for the region announces nothing.
  int MakeRoom(uint32_t len, uint64_t samples, const char* operation, int* sent)
      ORB_REQUIRES(writerMutex_);
  // The lowest usable slot whose bit is not set in `taken`, or kNoSlot.
  uint32_t LowestFreeSlot(uint64_t taken) const;
  // Bytes from the slot's start to the end of the region.
  uint64_t RegionBytesFrom(uint32_t slot) const;
  // Returns the counts of the current slot and sets them to 0: the caller books them.
  Tally TakeCurrent() ORB_REQUIRES(writerMutex_);
  void RecordWritten(uint32_t len, uint64_t samples, const char* operation)
      ORB_REQUIRES(writerMutex_);
  void BookLoss(orb::LossCause cause, uint64_t bytes, uint64_t samples) const;
  // Announces the current slot. When the result is not 0, the HAL refused it: the slot is free
  // again and no longer current.
  int SendCurrent() ORB_REQUIRES(writerMutex_);
  int SendSlot(int slot, int size) ORB_REQUIRES(writerMutex_);
  // Frees a slot that was taken but never announced.
  int FreeSlot(int slot) ORB_REQUIRES(writerMutex_);
  // Ends the announcement of the slot at `offset`; ignored unless it is announced.
  int FreeSlot(uint32_t offset, uint32_t, uint32_t) ORB_EXCLUDES(pendingMutex_);
  // Ends the announcement of the slot; its records have arrived, or are lost for that cause.
  void EndAnnouncement(uint32_t slot, std::optional<orb::LossCause> lost)
      ORB_EXCLUDES(pendingMutex_);
  // Counts the records of all announced slots as lost and ends their announcements.
  void LoseAnnounced() ORB_EXCLUDES(pendingMutex_);
  // Completions find this serializer by its handle after Enlist and until Delist.
  void Enlist();
  void Delist();
  // The slot's name in the ledger.
  std::string ShipmentOf(uint32_t slot) const;
  void wait_for_pending_slots() ORB_EXCLUDES(pendingMutex_);
  // Closes the channel and unmaps the region. Returns the result of closing the channel, 0 when
  // there is none.
  int ReleaseRegion() ORB_REQUIRES(writerMutex_);

  // Initialize sets these before it announces the region. They do not change until it is
  // withdrawn.
  orb::UniqueFd fd;
  uint8_t* base = nullptr;
  uint32_t totalSize = 0;  // Bytes.
  uint32_t slotSize = 0;   // Bytes.
  uint32_t slotCount = 0;
  uint64_t owner = 0;                 // LicSN of all records.
  kiv_fd_handle_s* handle = nullptr;  // Owned after SetFD.
  uint32_t regionToken = 0;           // The token at SetFD, for names in the ledger.

  orb::Mutex writerMutex_;
  uint32_t currentSlot ORB_GUARDED_BY(writerMutex_) = kNoSlot;
  uint8_t* currentPtr ORB_GUARDED_BY(writerMutex_) = nullptr;
  uint32_t bytesWritten ORB_GUARDED_BY(writerMutex_) = 0;
  // Changed under writerMutex_; atomic for backlog(), which must not wait for it.
  std::atomic<uint64_t> currentRecords{0};
  std::atomic<uint64_t> currentSamples{0};
  std::atomic<uint64_t> currentBytes{0};
  bool currentSent ORB_GUARDED_BY(writerMutex_) = false;  // Announced: the HAL may read it.

  // One bit for each slot. Writers only set bits, under writerMutex_; completions only clear
  // them.
  std::atomic<uint64_t> slotMask{0};   // Current or announced.
  std::atomic<uint64_t> announced{0};  // Counted in pendingCount.

  orb::Mutex pendingMutex_;
  orb::CondVar pendingCv_;
  uint32_t pendingCount ORB_GUARDED_BY(pendingMutex_) = 0;
  uint32_t pendingMax ORB_GUARDED_BY(pendingMutex_) = 0;
};
