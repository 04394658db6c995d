// Announced shared memory. The layout is fixed; clients only pass the pointer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "orb_sdk.h"

// Allocated with malloc; clients may free() it after kiv_unset_fd.
struct kiv_fd_handle_s {
  static constexpr uint32_t kNoToken = 0xFFFFFFFF;

  // The receiver's name for the region. kNoToken once the receiver has died: the next one
  // may give the same name to another region.
  std::atomic<uint32_t> fdToken;
  int fd;           // Borrowed.
  uint32_t offset;  // Bytes of the shared memory before the region.
  uint32_t length;  // Bytes of the region.
  kiv_fd_done_cb fn;
  kiv_collector* collector;  // The owner; outlives the announcement.
};
static_assert(sizeof(void*) == 8,
              "builds for 64 bits only: the layouts of kiv_cfg_s and kiv_fd_handle_s, which "
              "clients hold, have 8-byte pointers");
static_assert(sizeof(kiv_fd_handle_s) == 32 && offsetof(kiv_fd_handle_s, collector) == 24,
              "kiv_fd_handle_s: not the layout that clients hold");
