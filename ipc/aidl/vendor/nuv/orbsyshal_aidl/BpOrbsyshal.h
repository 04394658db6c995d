// Proxy of IOrbsyshal.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/IOrbsyshal.h>
#include <android/binder_interface_utils.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

// Thread-safe; each method blocks until the HAL has answered.
class BpOrbsyshal : public ::ndk::BpCInterface<IOrbsyshal> {
 public:
  explicit BpOrbsyshal(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}

  ::ndk::ScopedAStatus configure_fmq(const QueueDescriptor& in_queue, bool* _aidl_return) override;
  ::ndk::ScopedAStatus request_read(const std::string& in_name, int32_t in_total,
                                    bool* _aidl_return) override;
  ::ndk::ScopedAStatus set_fd(const NativeHandle& in_region,
                              const std::shared_ptr<IOrbFdCallback>& in_callback,
                              SetFdResult* _aidl_return) override;
  ::ndk::ScopedAStatus fd_write_to_system_dropbox(const std::string& in_name,
                                                  const std::vector<uint8_t>& in_header,
                                                  int32_t in_fdToken, int32_t in_offset,
                                                  int32_t in_size, int32_t in_compress,
                                                  int32_t* _aidl_return) override;
  ::ndk::ScopedAStatus unset_fd(int32_t in_fdToken) override;
};

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
