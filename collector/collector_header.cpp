// Tested by tests/collector/session_test.cpp and fd_test.cpp.
#include "collector/collector_header.h"

CollectorHeader::CollectorHeader(const CollectorSettings& settings) {
  orb::MutexLock lock(mutex_);
  header_.SetItem(TelemetryHeader::HDR_ITEM_KIND, settings.header_kind);
  header_.SetItem(TelemetryHeader::HDR_ITEM_VERSION, settings.header_version);
}

void CollectorHeader::SetClientId(int32_t client_id) {
  orb::MutexLock lock(mutex_);
  header_.SetItem(TelemetryHeader::HDR_ITEM_WORD8, static_cast<uint32_t>(client_id));
}

void CollectorHeader::SetSlotOwner(uint64_t licSN) {
  orb::MutexLock lock(mutex_);
  header_.SetItem(TelemetryHeader::HDR_ITEM_LICSN, licSN);
}

std::vector<uint8_t> CollectorHeader::ForFile(uint64_t licSN) {
  orb::MutexLock lock(mutex_);
  header_.SetItem(TelemetryHeader::HDR_ITEM_CAMPAIGN_ID, campaign_id());
  header_.SetItem(TelemetryHeader::HDR_ITEM_LICSN, licSN);
  header_.SetConstantItems();
  header_.SetTimestampItems();
  return header_.GetHeader();
}

CollectorHeader::Piece CollectorHeader::ForPiece(uint32_t seqno, uint32_t size_bytes,
                                                 bool compressed) {
  orb::MutexLock lock(mutex_);
  header_.SetConstantItems();
  header_.SetTimestampItems();
  header_.SetItem(TelemetryHeader::HDR_ITEM_CAMPAIGN_ID, campaign_id());
  header_.SetItem(TelemetryHeader::HDR_ITEM_SEQNO, seqno);
  header_.SetItem(TelemetryHeader::HDR_ITEM_LENGTH, size_bytes);
  header_.SetItem(TelemetryHeader::HDR_ITEM_COMPRESSED, compressed ? 1 : 0);
  // Refused with a log line, which readers of the log expect of every announcement.
  header_.SetItem(TelemetryHeader::HDR_ITEM_TIMESTAMP, 0);
  return {header_.GetHeader(),
          static_cast<int32_t>(header_.GetItem(TelemetryHeader::HDR_ITEM_WORD8)),
          header_.GetItem(TelemetryHeader::HDR_ITEM_TIMESTAMP)};
}
