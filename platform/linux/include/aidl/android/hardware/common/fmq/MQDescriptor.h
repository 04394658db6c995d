// What a peer needs to map a message queue of T. Move only.
#pragma once

#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/android/hardware/common/fmq/GrantorDescriptor.h>
#include <android/binder_parcel.h>
#include <orb_platform/sized_body.h>

#include <cstdint>
#include <type_traits>
#include <vector>

namespace aidl::android::hardware::common::fmq {

template <typename T, typename Flavor>
class MQDescriptor {
 public:
  typedef std::false_type fixed_size;
  static constexpr const char* descriptor = "android.hardware.common.fmq.MQDescriptor";

  std::vector<GrantorDescriptor> grantors;  // Read counter, write counter, data [, event flag].
  ::aidl::android::hardware::common::NativeHandle handle;
  int32_t quantum = 0;  // Bytes of one item.
  int32_t flags = 0;    // 1: one reader and one writer, synchronized.

  binder_status_t readFromParcel(const AParcel* parcel) {
    return orb_platform::ReadSizedBody(parcel, &grantors, &handle, &quantum, &flags);
  }
  binder_status_t writeToParcel(AParcel* parcel) const {
    return orb_platform::WriteSizedBody(parcel, grantors, handle, quantum, flags);
  }
};

}  // namespace aidl::android::hardware::common::fmq
