// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BpOrbsyshal.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

::ndk::ScopedAStatus BpOrbsyshal::configure_fmq(const QueueDescriptor& in_queue,
                                                bool* _aidl_return) {
  return internal::Call(asBinder(), TRANSACTION_configure_fmq, std::tuple(_aidl_return), in_queue);
}

::ndk::ScopedAStatus BpOrbsyshal::request_read(const std::string& in_name, int32_t in_total,
                                               bool* _aidl_return) {
  return internal::Call(asBinder(), TRANSACTION_request_read, std::tuple(_aidl_return), in_name,
                        in_total);
}

::ndk::ScopedAStatus BpOrbsyshal::set_fd(const NativeHandle& in_region,
                                         const std::shared_ptr<IOrbFdCallback>& in_callback,
                                         SetFdResult* _aidl_return) {
  return internal::Call(asBinder(), TRANSACTION_set_fd, std::tuple(_aidl_return), in_region,
                        in_callback);
}

::ndk::ScopedAStatus BpOrbsyshal::fd_write_to_system_dropbox(const std::string& in_name,
                                                             const std::vector<uint8_t>& in_header,
                                                             int32_t in_fdToken, int32_t in_offset,
                                                             int32_t in_size, int32_t in_compress,
                                                             int32_t* _aidl_return) {
  return internal::Call(asBinder(), TRANSACTION_fd_write_to_system_dropbox,
                        std::tuple(_aidl_return), in_name, in_header, in_fdToken, in_offset,
                        in_size, in_compress);
}

::ndk::ScopedAStatus BpOrbsyshal::unset_fd(int32_t in_fdToken) {
  return internal::Call(asBinder(), TRANSACTION_unset_fd, std::tuple<>(), in_fdToken);
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
