// The system HAL's interface: whole uploads by message queue, and regions of
// shared memory that are announced once and consumed piece by piece.
#pragma once

#include <aidl/android/hardware/common/NativeHandle.h>
#include <aidl/android/hardware/common/fmq/MQDescriptor.h>
#include <aidl/android/hardware/common/fmq/SynchronizedReadWrite.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/SetFdResult.h>
#include <android/binder_auto_utils.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace aidl::vendor::nuv::orbsyshal_aidl {

class IOrbsyshal : public ::ndk::ICInterface {
 public:
  using QueueDescriptor = ::aidl::android::hardware::common::fmq::MQDescriptor<
      int8_t, ::aidl::android::hardware::common::fmq::SynchronizedReadWrite>;
  using NativeHandle = ::aidl::android::hardware::common::NativeHandle;

  static const char* descriptor;
  enum : transaction_code_t {
    TRANSACTION_configure_fmq = FIRST_CALL_TRANSACTION + 0,
    TRANSACTION_request_read = FIRST_CALL_TRANSACTION + 1,
    TRANSACTION_set_fd = FIRST_CALL_TRANSACTION + 2,
    TRANSACTION_fd_write_to_system_dropbox = FIRST_CALL_TRANSACTION + 3,
    TRANSACTION_unset_fd = FIRST_CALL_TRANSACTION + 4,
  };

  // Null when the binder is null, dead or of another interface. Blocks once for
  // a remote binder.
  static std::shared_ptr<IOrbsyshal> fromBinder(const ::ndk::SpAIBinder& binder);
  static binder_status_t writeToParcel(AParcel* parcel,
                                       const std::shared_ptr<IOrbsyshal>& instance);
  static binder_status_t readFromParcel(const AParcel* parcel,
                                        std::shared_ptr<IOrbsyshal>* instance);

  // The queue of the caller's next upload, before anything is written to it.
  // *_aidl_return: whether the HAL accepts it.
  virtual ::ndk::ScopedAStatus configure_fmq(const QueueDescriptor& in_queue,
                                             bool* _aidl_return) = 0;
  // The upload's bytes are in the queue. *_aidl_return: whether the HAL has
  // taken all `in_total` of them; the queue is gone after the answer.
  virtual ::ndk::ScopedAStatus request_read(const std::string& in_name, int32_t in_total,
                                            bool* _aidl_return) = 0;
  // A region: one descriptor, and as numbers its offset and length in bytes.
  virtual ::ndk::ScopedAStatus set_fd(const NativeHandle& in_region,
                                      const std::shared_ptr<IOrbFdCallback>& in_callback,
                                      SetFdResult* _aidl_return) = 0;
  // `in_size` bytes at `in_offset` of the region are ready. *_aidl_return: 0, or
  // the HAL's reason; the callback tells when the bytes are consumed.
  virtual ::ndk::ScopedAStatus fd_write_to_system_dropbox(const std::string& in_name,
                                                          const std::vector<uint8_t>& in_header,
                                                          int32_t in_fdToken, int32_t in_offset,
                                                          int32_t in_size, int32_t in_compress,
                                                          int32_t* _aidl_return) = 0;
  virtual ::ndk::ScopedAStatus unset_fd(int32_t in_fdToken) = 0;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
