// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/BpOrbsyshal.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbsyshal.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

const char* IOrbsyshal::descriptor = "vendor.nuv.orbsyshal_aidl.IOrbsyshal";

std::shared_ptr<IOrbsyshal> IOrbsyshal::fromBinder(const ::ndk::SpAIBinder& binder) {
  return internal::FromBinder<IOrbsyshal, BnOrbsyshal, BpOrbsyshal>(binder);
}

binder_status_t IOrbsyshal::writeToParcel(AParcel* parcel,
                                          const std::shared_ptr<IOrbsyshal>& instance) {
  return internal::WriteInterface(parcel, instance);
}

binder_status_t IOrbsyshal::readFromParcel(const AParcel* parcel,
                                           std::shared_ptr<IOrbsyshal>* instance) {
  return internal::ReadInterface(parcel, instance);
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
