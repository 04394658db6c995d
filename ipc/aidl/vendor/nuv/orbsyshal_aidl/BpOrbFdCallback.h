// Proxy of IOrbFdCallback.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbFdCallback.h>
#include <android/binder_interface_utils.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

// Thread-safe; each method blocks until the peer has answered.
class BpOrbFdCallback : public ::ndk::BpCInterface<IOrbFdCallback> {
 public:
  explicit BpOrbFdCallback(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}

  ::ndk::ScopedAStatus fd_write_done(int32_t in_fdToken, int32_t in_a, int32_t in_b,
                                     int32_t in_c) override;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
