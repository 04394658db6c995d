// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BpOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {

::ndk::ScopedAStatus BpOrbFdCallback::fd_write_done(int32_t in_fdToken, int32_t in_a, int32_t in_b,
                                                    int32_t in_c) {
  return internal::Call(asBinder(), TRANSACTION_fd_write_done, std::tuple<>(), in_fdToken, in_a,
                        in_b, in_c);
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
