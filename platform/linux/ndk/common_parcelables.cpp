// Parcelables of Android's common NDK interfaces.
// Tested by tests/platform_ndk/queue_test.cpp.
#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/android/hardware/common/fmq/GrantorDescriptor.h>

#include "orb_platform/sized_body.h"

namespace aidl::android::hardware::common {

const char* NativeHandle::descriptor = "android.hardware.common.NativeHandle";

binder_status_t NativeHandle::readFromParcel(const AParcel* parcel) {
  return orb_platform::ReadSizedBody(parcel, &fds, &ints);
}

binder_status_t NativeHandle::writeToParcel(AParcel* parcel) const {
  return orb_platform::WriteSizedBody(parcel, fds, ints);
}

}  // namespace aidl::android::hardware::common

namespace aidl::android::hardware::common::fmq {

const char* GrantorDescriptor::descriptor = "android.hardware.common.fmq.GrantorDescriptor";

binder_status_t GrantorDescriptor::readFromParcel(const AParcel* parcel) {
  return orb_platform::ReadSizedBody(parcel, &fdIndex, &offset, &extent);
}

binder_status_t GrantorDescriptor::writeToParcel(AParcel* parcel) const {
  return orb_platform::WriteSizedBody(parcel, fdIndex, offset, extent);
}

}  // namespace aidl::android::hardware::common::fmq
