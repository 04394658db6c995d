// File descriptors that it owns, and numbers whose meaning their users agree on. Move only.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_parcel.h>

#include <cstdint>
#include <type_traits>
#include <vector>

namespace aidl::android::hardware::common {

class NativeHandle {
 public:
  typedef std::false_type fixed_size;
  static const char* descriptor;

  std::vector<::ndk::ScopedFileDescriptor> fds;
  std::vector<int32_t> ints;

  binder_status_t readFromParcel(const AParcel* parcel);
  binder_status_t writeToParcel(AParcel* parcel) const;
};

}  // namespace aidl::android::hardware::common
