// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbFdCallback.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>
#include <android/binder_stability.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {
namespace {

binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                           AParcel* out) {
  if (code != IOrbFdCallback::TRANSACTION_fd_write_done) return STATUS_UNKNOWN_TRANSACTION;
  const auto self =
      std::static_pointer_cast<IOrbFdCallback>(::ndk::ICInterface::asInterface(binder));
  int32_t token = 0, a = 0, b = 0, c = 0;
  const binder_status_t status = internal::ReadAll(in, &token, &a, &b, &c);
  return status == STATUS_OK ? internal::Answer(out, self->fd_write_done(token, a, b, c)) : status;
}

}  // namespace

AIBinder_Class* BnOrbFdCallback::Class() {
  static AIBinder_Class* const clazz = defineClass(descriptor, OnTransact);
  return clazz;
}

::ndk::SpAIBinder BnOrbFdCallback::createBinder() {
  ::ndk::SpAIBinder binder(AIBinder_new(Class(), static_cast<::ndk::ICInterface*>(this)));
#ifdef BINDER_STABILITY_SUPPORT
  AIBinder_markVintfStability(binder.get());
#endif
  return binder;
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
