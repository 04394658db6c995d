// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/BpOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

const char* IOrbFdCallback::descriptor = "vendor.nuv.orbsyshal_aidl.IOrbFdCallback";

std::shared_ptr<IOrbFdCallback> IOrbFdCallback::fromBinder(const ::ndk::SpAIBinder& binder) {
  return internal::FromBinder<IOrbFdCallback, BnOrbFdCallback, BpOrbFdCallback>(binder);
}

binder_status_t IOrbFdCallback::writeToParcel(AParcel* parcel,
                                              const std::shared_ptr<IOrbFdCallback>& instance) {
  return internal::WriteInterface(parcel, instance);
}

binder_status_t IOrbFdCallback::readFromParcel(const AParcel* parcel,
                                               std::shared_ptr<IOrbFdCallback>* instance) {
  return internal::ReadInterface(parcel, instance);
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
