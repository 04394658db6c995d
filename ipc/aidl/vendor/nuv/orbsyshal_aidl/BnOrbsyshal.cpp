// Tested by tests/services/hal_test.cpp.
#include <aidl/vendor/nuv/orbsyshal_aidl/BnOrbsyshal.h>
#include <aidl/vendor/nuv/orbsyshal_aidl/transaction.h>
#include <android/binder_stability.h>

namespace aidl::vendor::nuv::orbsyshal_aidl {
namespace {

binder_status_t ConfigureFmq(IOrbsyshal* self, const AParcel* in, AParcel* out) {
  IOrbsyshal::QueueDescriptor queue;
  const binder_status_t status = internal::ReadAll(in, &queue);
  if (status != STATUS_OK) return status;
  bool result = false;
  const ::ndk::ScopedAStatus outcome = self->configure_fmq(queue, &result);
  return internal::Answer(out, outcome, result);
}

binder_status_t RequestRead(IOrbsyshal* self, const AParcel* in, AParcel* out) {
  std::string name;
  int32_t total = 0;
  const binder_status_t status = internal::ReadAll(in, &name, &total);
  if (status != STATUS_OK) return status;
  bool result = false;
  const ::ndk::ScopedAStatus outcome = self->request_read(name, total, &result);
  return internal::Answer(out, outcome, result);
}

binder_status_t SetFd(IOrbsyshal* self, const AParcel* in, AParcel* out) {
  IOrbsyshal::NativeHandle region;
  std::shared_ptr<IOrbFdCallback> callback;
  const binder_status_t status = internal::ReadAll(in, &region, &callback);
  if (status != STATUS_OK) return status;
  SetFdResult result;
  const ::ndk::ScopedAStatus outcome = self->set_fd(region, callback, &result);
  return internal::Answer(out, outcome, result);
}

binder_status_t FdWrite(IOrbsyshal* self, const AParcel* in, AParcel* out) {
  std::string name;
  std::vector<uint8_t> header;
  int32_t token = 0, offset = 0, size = 0, compress = 0;
  const binder_status_t status =
      internal::ReadAll(in, &name, &header, &token, &offset, &size, &compress);
  if (status != STATUS_OK) return status;
  int32_t result = 0;
  const ::ndk::ScopedAStatus outcome =
      self->fd_write_to_system_dropbox(name, header, token, offset, size, compress, &result);
  return internal::Answer(out, outcome, result);
}

binder_status_t UnsetFd(IOrbsyshal* self, const AParcel* in, AParcel* out) {
  int32_t token = 0;
  const binder_status_t status = internal::ReadAll(in, &token);
  return status == STATUS_OK ? internal::Answer(out, self->unset_fd(token)) : status;
}

binder_status_t OnTransact(AIBinder* binder, transaction_code_t code, const AParcel* in,
                           AParcel* out) {
  const auto self = std::static_pointer_cast<IOrbsyshal>(::ndk::ICInterface::asInterface(binder));
  switch (code) {
    case IOrbsyshal::TRANSACTION_configure_fmq:
      return ConfigureFmq(self.get(), in, out);
    case IOrbsyshal::TRANSACTION_request_read:
      return RequestRead(self.get(), in, out);
    case IOrbsyshal::TRANSACTION_set_fd:
      return SetFd(self.get(), in, out);
    case IOrbsyshal::TRANSACTION_fd_write_to_system_dropbox:
      return FdWrite(self.get(), in, out);
    case IOrbsyshal::TRANSACTION_unset_fd:
      return UnsetFd(self.get(), in, out);
    default:
      return STATUS_UNKNOWN_TRANSACTION;
  }
}

}  // namespace

AIBinder_Class* BnOrbsyshal::Class() {
  static AIBinder_Class* const clazz = defineClass(descriptor, OnTransact);
  return clazz;
}

::ndk::SpAIBinder BnOrbsyshal::createBinder() {
  ::ndk::SpAIBinder binder(AIBinder_new(Class(), static_cast<::ndk::ICInterface*>(this)));
#ifdef BINDER_STABILITY_SUPPORT
  AIBinder_markVintfStability(binder.get());
#endif
  return binder;
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl
