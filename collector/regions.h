// The regions of shared memory of one collector. A region is announced once, then its
// pieces one by one, until it is withdrawn or its HAL dies.
//
// Thread-safe. It holds no lock of its own while it waits for the HAL.
// Tested by tests/collector/fd_test.cpp.
#pragma once

#include <atomic>
#include <cstdint>

#include "collector/collector_header.h"
#include "collector/collector_settings.h"
#include "collector/fd_handles.h"
#include "collector/manager_link.h"
#include "collector/uploader.h"
#include "orb_sdk.h"

class Regions {
 public:
  // All are borrowed and outlive it. Handles name the owner.
  Regions(kiv_collector* owner, const CollectorSettings& settings, const ManagerLink& link,
          CollectorHeader* header, Uploader* uploader)
      : owner_(*owner), settings_(settings), link_(link), header_(*header), uploader_(*uploader) {}

  // See SerializerOwner. The handle is allocated with malloc; the caller frees it.
  kiv_fd_handle_s* Set(int fd, uint32_t offset, uint32_t length, kiv_fd_done_cb done);
  int Write(const std::atomic<uint32_t>& fdToken, uint32_t offset, uint32_t size);
  int Unset(kiv_fd_handle_s* handle, const std::atomic<uint32_t>& fdToken);

  // See RoutedCollector.
  void Done(uint32_t fdToken, uint32_t a, uint32_t b, int c, const std::atomic<bool>& hal_died) {
    handles_.RunDone(fdToken, a, b, c, hal_died);
  }
  void Lose(uint32_t fdToken);

  // Call in the child of a fork(). False when a thread of the parent was inside.
  bool AdoptInChild() { return handles_.AdoptInChild(); }

 private:
  int Announce(const std::atomic<uint32_t>& fdToken, uint32_t offset, uint32_t size);

  kiv_collector& owner_;
  const CollectorSettings& settings_;
  const ManagerLink& link_;
  CollectorHeader& header_;
  Uploader& uploader_;
  FdHandles handles_;
};
