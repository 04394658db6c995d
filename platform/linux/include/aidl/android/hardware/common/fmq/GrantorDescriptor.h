// One piece of a message queue's memory.
#pragma once

#include <android/binder_parcel.h>

#include <cstdint>
#include <type_traits>

namespace aidl::android::hardware::common::fmq {

class GrantorDescriptor {
 public:
  typedef std::false_type fixed_size;
  static const char* descriptor;

  int32_t fdIndex = 0;  // Into the handle's descriptors.
  int32_t offset = 0;   // Bytes.
  int64_t extent = 0;   // Bytes.

  binder_status_t readFromParcel(const AParcel* parcel);
  binder_status_t writeToParcel(AParcel* parcel) const;
};

}  // namespace aidl::android::hardware::common::fmq
