// Tested by tests/collector/fd_test.cpp.
#include "collector/regions.h"

#include <cstdlib>
#include <new>
#include <string>

#include "collector/kiv_collector.h"
#include "ipc/kiv_aidl_client.h"
#include "serializer/kpi_memory_serializer.h"
#include "utility/contained.h"
#include "utility/log.h"

kiv_fd_handle_s* Regions::Set(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done) {
  const auto client = link_.client();
  FdHandles::Setup setup;
  handles_.BeginSetup(&setup);
  const int result = orb::Contained("SetFD", -1, [&] {
    return client == nullptr ? -1 : client->setupFD(fd, offset, length, &owner_, &setup.fdToken);
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
  auto* const handle =
      new (memory) kiv_fd_handle_s{setup.fdToken, fd, offset, length, done, &owner_};
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

void Regions::Lose(uint32_t fdToken) {
  while (const kiv_fd_handle_s* const handle = handles_.LoseNext(fdToken)) {
    KPIMemorySerializer::RegionLost(handle);
  }
}

int Regions::Write(const std::atomic<uint32_t>& fdToken, uint32_t offset, uint32_t size) {
  if (!handles_.Holds(fdToken)) {
    LOGE("%s: no region of this client", "FdWrite");
    return -1;
  }
  return orb::Contained("FdWrite", -1, [&] { return Announce(fdToken, offset, size); });
}

int Regions::Announce(const std::atomic<uint32_t>& fdToken, uint32_t offset, uint32_t size) {
  const auto loc = static_cast<int>(settings_.compress_loc);
  const auto type = static_cast<int>(settings_.compress_type);
  const CollectorHeader::Piece piece =
      header_.ForPiece(uploader_.NextSeqno(), size, /*compressed=*/loc == 0);
  const std::string name = uploader_.NameOf(piece.client_id, piece.timestamp_ms);
  const CompressType compress = loc != 0 || type != 0 ? COMPRESS_TYPE_1 : COMPRESS_NONE;
  LOGD("%s: compress.loc %d compress.type %d", "FdWrite", loc, type);
  LOGD("%s: compress.loc %d compress.type %d ctype %d", "FdWrite", loc, type,
       static_cast<int>(compress));
  const auto client = link_.client();
  if (client == nullptr) return -1;
  return client->FdWrite(link_.token(), fdToken, name, piece.bytes, offset, size, compress);
}

int Regions::Unset(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken) {
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
