// What the HAL answers to a region that is announced to it.
#pragma once

#include <android/binder_parcel.h>

#include <cstdint>
#include <type_traits>

namespace aidl::vendor::nuv::orbsyshal_aidl {

class SetFdResult {
 public:
  typedef std::false_type fixed_size;
  static const char* descriptor;

  int32_t result = 0;   // 0 accepted, else the HAL's reason.
  int32_t fdToken = 0;  // Names the region from now on; not 0 when accepted.

  binder_status_t readFromParcel(const AParcel* parcel);
  binder_status_t writeToParcel(AParcel* parcel) const;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
