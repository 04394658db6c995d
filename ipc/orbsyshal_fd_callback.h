// The HAL's way back: tells a collector that a piece of a region is consumed.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>

#include <atomic>
#include <cstdint>

// One for each connection to the HAL. Runs on an NDK binder thread, possibly while
// the announcement that it answers has not returned yet, and takes no lock of the
// client.
class OrbsyshalFDCallback : public ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbFdCallback {
 public:
  // Passes the three values on to the collector that owns the region. Always OK.
  ::ndk::ScopedAStatus fd_write_done(int32_t fdToken, int32_t a, int32_t b, int32_t c) override;

  // Completions that arrive late are ignored from now on: their tokens may soon name
  // regions of the next HAL.
  void HalDied() { hal_died_ = true; }

 private:
  std::atomic<bool> hal_died_{false};
};
