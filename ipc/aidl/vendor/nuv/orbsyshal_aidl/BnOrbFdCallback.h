// Base of implementations of IOrbFdCallback.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbFdCallback.h>
#include <android/binder_ibinder.h>
#include <android/binder_interface_utils.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

// Methods run on binder threads, several at once.
class BnOrbFdCallback : public ::ndk::BnCInterface<IOrbFdCallback> {
 public:
  // The class of all binders of this interface, local and remote.
  static AIBinder_Class* Class();

 protected:
  ::ndk::SpAIBinder createBinder() override;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
