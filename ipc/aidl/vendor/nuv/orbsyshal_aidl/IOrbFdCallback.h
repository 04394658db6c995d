// How the HAL tells that it has consumed a piece of a region.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel.h>

#include <cstdint>
#include <memory>

namespace aidl::vendor::nuv::orbsyshal_aidl {

class IOrbFdCallback : public ::ndk::ICInterface {
 public:
  static const char* descriptor;
  enum : transaction_code_t { TRANSACTION_fd_write_done = FIRST_CALL_TRANSACTION + 0 };

  // Null when the binder is null, dead or of another interface. Blocks once for
  // a remote binder.
  static std::shared_ptr<IOrbFdCallback> fromBinder(const ::ndk::SpAIBinder& binder);
  static binder_status_t writeToParcel(AParcel* parcel,
                                       const std::shared_ptr<IOrbFdCallback>& instance);
  static binder_status_t readFromParcel(const AParcel* parcel,
                                        std::shared_ptr<IOrbFdCallback>* instance);

  // The three numbers are between the HAL and whoever fills the region.
  virtual ::ndk::ScopedAStatus fd_write_done(int32_t in_fdToken, int32_t in_a, int32_t in_b,
                                             int32_t in_c) = 0;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
