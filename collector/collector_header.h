// The 66 bytes that a collector writes before its data: what stays the same between
// two headers is kept, the rest is filled in when one is made.
//
// Thread-safe; its mutex is a leaf, held for the look at libc's time zone, too.
// Tested by tests/collector/session_test.cpp and fd_test.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "collector/collector_settings.h"
#include "serializer/telemetry_header.h"
#include "utility/thread_annotations.h"

class CollectorHeader {
 public:
  explicit CollectorHeader(const CollectorSettings& settings);

  // What all headers from now on carry. The campaign's needs no lock, so that a
  // manager's callback never waits for a session to store it.
  void SetClientId(int32_t client_id) ORB_EXCLUDES(mutex_);
  void SetSlotOwner(uint64_t licSN) ORB_EXCLUDES(mutex_);
  void SetCampaignId(uint64_t campaign_id) { campaign_id_.store(campaign_id); }
  uint64_t campaign_id() const { return campaign_id_.load(); }

  // The header of a new file of this LicSN.
  std::vector<uint8_t> ForFile(uint64_t licSN) ORB_EXCLUDES(mutex_);

  // The header of one piece of a region, with what its upload's name is made of.
  struct Piece {
    std::vector<uint8_t> bytes;
    int32_t client_id;
    uint64_t timestamp_ms;
  };
  Piece ForPiece(uint32_t seqno, uint32_t size_bytes, bool compressed) ORB_EXCLUDES(mutex_);

  // In the child of a fork(): false when one of the parent's threads was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  orb::Mutex mutex_;
  TelemetryHeader header_ ORB_GUARDED_BY(mutex_);
  std::atomic<uint64_t> campaign_id_{0};  // Host order.
};
