// The HAL on the bus.
#pragma once

#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <android/binder_auto_utils.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "services/hal/hal.h"
#include "utility/thread_annotations.h"

namespace orb::hal {

inline constexpr const char* kHalServiceName = "vendor.nuv.orbsyshal_aidl.IOrbsyshal/default";

// Gives every call to the Hal with its caller. Any thread. One at a time in a
// process: death notices carry a token only, and go to the one that is there.
class OrbsyshalService : public ::aidl::vendor::nuv::orbsyshal_aidl::BnOrbsyshal {
 public:
  using IOrbFdCallback = ::aidl::vendor::nuv::orbsyshal_aidl::IOrbFdCallback;
  using SetFdResult = ::aidl::vendor::nuv::orbsyshal_aidl::SetFdResult;

  explicit OrbsyshalService(std::shared_ptr<Hal> hal);
  ~OrbsyshalService() override;

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

 private:
  bool Link(uint32_t token, const ::ndk::SpAIBinder& callback) ORB_EXCLUDES(mutex_);
  void Unlink(uint32_t token) ORB_EXCLUDES(mutex_);

  const std::shared_ptr<Hal> hal_;
  Mutex mutex_;
  std::map<uint32_t, ::ndk::SpAIBinder> linked_ ORB_GUARDED_BY(mutex_);  // By token.
  // Owns the links to all callbacks; deleting it undoes them.
  ::ndk::ScopedAIBinder_DeathRecipient death_;
};

}  // namespace orb::hal
