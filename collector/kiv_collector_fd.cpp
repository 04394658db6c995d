// Shared memory: announced once, then piece by piece.
// Tested by tests/collector/fd_test.cpp.
#include <cstdlib>
#include <new>
#include <vector>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"
#include "serializer/kpi_memory_serializer.h"
#include "utility/contained.h"
#include "utility/log.h"

kiv_fd_handle_s* kiv_collector::SetFD(int fd, uint32_t offset, uint32_t length,
                                      kiv_fd_done_cb done) {
  const auto client = link_.client();
  FdHandles::Setup setup;
  handles_.BeginSetup(&setup);
  const int result = orb::Contained("SetFD", -1, [&] {
    return client == nullptr ? -1 : client->setupFD(fd, offset, length, this, &setup.fdToken);
  });
  void* const memory = result == 0 ? malloc(sizeof(kiv_fd_handle_s)) : nullptr;
  if (memory == nullptr) {
    handles_.EndSetup(&setup, nullptr);
    if (result == 0) {
      client->UnsetFD(link_.token(), setup.fdToken);
    } else {
      LOGE("%s: clientIntf->setupFD failed - %d", "SetFD", result);
    }
    return nullptr;
  }
  auto* const handle = new (memory) kiv_fd_handle_s{setup.fdToken, fd, offset, length, done, this};
  bool kept = false;
  const bool asked = orb::Contained("SetFD", [&] { kept = handles_.EndSetup(&setup, handle); });
  if (kept) return handle;
  if (asked) {
    LOGE("%s: clientIntf->setupFD failed - %d", "SetFD", -1);
  } else {
    client->UnsetFD(link_.token(), setup.fdToken);
  }
  free(handle);
  return nullptr;
}

void kiv_collector::LoseRegion(uint32_t fdToken) {
  while (const kiv_fd_handle_s* const handle = handles_.LoseNext(fdToken)) {
    KPIMemorySerializer::RegionLost(handle);
  }
}

int kiv_collector::FdWrite(const std::atomic<uint32_t>& fdToken, uint64_t /*unused*/,
                           uint32_t offset, uint32_t size) {
  if (!handles_.Holds(fdToken)) {
    LOGE("%s: no region of this client", "FdWrite");
    return -1;
  }
  return orb::Contained("FdWrite", -1, [&] { return AnnouncePiece(fdToken, offset, size); });
}

int kiv_collector::AnnouncePiece(const std::atomic<uint32_t>& fdToken, uint32_t offset,
                                 uint32_t size) {
  const auto loc = static_cast<int>(cfg_.compress_loc);
  const auto type = static_cast<int>(cfg_.compress_type);
  const uint32_t seqno = NextSeqno();
  std::vector<uint8_t> bytes;
  std::string piece;
  {
    orb::MutexLock lock(headerMutex);
    header_.SetConstantItems();
    header_.SetTimestampItems();
    header_.SetItem(TelemetryHeader::HDR_ITEM_CAMPAIGN_ID, GetCampaignId());
    header_.SetItem(TelemetryHeader::HDR_ITEM_SEQNO, seqno);
    header_.SetItem(TelemetryHeader::HDR_ITEM_LENGTH, size);
    header_.SetItem(TelemetryHeader::HDR_ITEM_COMPRESSED, loc == 0 ? 1 : 0);
    // Refused with a log line, which readers of the log expect of every announcement.
    header_.SetItem(TelemetryHeader::HDR_ITEM_TIMESTAMP, 0);
    bytes = header_.GetHeader();
    const auto clientId = static_cast<int32_t>(header_.GetItem(TelemetryHeader::HDR_ITEM_WORD8));
    piece = UploadName(clientId, header_.GetItem(TelemetryHeader::HDR_ITEM_TIMESTAMP));
  }
  const CompressType compress = loc != 0 || type != 0 ? COMPRESS_TYPE_1 : COMPRESS_NONE;
  LOGD("%s: compress.loc %d compress.type %d", "FdWrite", loc, type);
  LOGD("%s: compress.loc %d compress.type %d ctype %d", "FdWrite", loc, type,
       static_cast<int>(compress));
  const auto client = link_.client();
  if (client == nullptr) return -1;
  return client->FdWrite(link_.token(), fdToken, piece, bytes, offset, size, compress);
}

int kiv_collector::UnsetFD(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) {
  if (!handles_.Holds(fdToken)) {
    LOGE("%s: no region of this client", "UnsetFD");
    return -1;
  }
  const auto client = link_.client();
  const int result = orb::Contained("UnsetFD", -1, [&] {
    return client == nullptr ? -1 : client->UnsetFD(link_.token(), fdToken);
  });
  handles_.Remove(handle);
  return result;
}
