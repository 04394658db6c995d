// The 66 bytes that a collector writes before its data. It keeps the fields that stay the
// same between two headers, and fills in the others when it makes one.
//
// Thread-safe. Its mutex is a leaf; the time zone's mutex alone is taken below it.
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

  // All headers from now on carry these. The campaign's id needs no lock, so that a
  // manager's callback never waits for a session to store it.
  void SetClientId(int32_t client_id) ORB_EXCLUDES(mutex_);
  void SetSlotOwner(uint64_t licSN) ORB_EXCLUDES(mutex_);
  void SetCampaignId(uint64_t campaign_id) { campaign_id_.store(campaign_id); }
  uint64_t campaign_id() const { return campaign_id_.load(); }

  // The header of a new file of this LicSN.
  std::vector<uint8_t> ForFile(uint64_t licSN) ORB_EXCLUDES(mutex_);

  // The header of one piece of a region, and the numbers that name its upload.
  struct Piece {
    std::vector<uint8_t> bytes;
    int32_t client_id;
    uint64_t timestamp_ms;
  };
  Piece ForPiece(uint32_t seqno, uint32_t size_bytes, bool compressed) ORB_EXCLUDES(mutex_);

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() ORB_EXCLUDES(mutex_) { return mutex_.IsFree(); }

 private:
  orb::Mutex mutex_;
  TelemetryHeader header_ ORB_GUARDED_BY(mutex_);
  std::atomic<uint64_t> campaign_id_{0};  // Host order.
};
