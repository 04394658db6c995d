// One transaction over the NDK binder interface, from the proxy's and from the
// stub's side, for the interfaces of this folder.
//
// request := interface_token argument*     reply := status result*
//
// Results follow only a status that is OK.
// Tested by tests/services/hal_test.cpp.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel_utils.h>
#include <android/binder_stability.h>

#include <memory>
#include <tuple>

namespace aidl::vendor::nuv::orbsyshal_aidl::internal {

// The HAL may be the vendor's or the system's. Calls and objects of these interfaces pass
// between the two only with this flag, and marked where the stub makes its binder; what
// generated code does under the same macro, which the build defines.
#ifdef BINDER_STABILITY_SUPPORT
inline constexpr binder_flags_t kCallFlags = FLAG_PRIVATE_LOCAL;
#else
inline constexpr binder_flags_t kCallFlags = 0;
#endif

// Stops at the first value that fails.
template <typename... Values>
binder_status_t WriteAll([[maybe_unused]] AParcel* to, const Values&... values) {
  binder_status_t status = STATUS_OK;
  static_cast<void>((((status = ::ndk::AParcel_writeData(to, values)) == STATUS_OK) && ...));
  return status;
}

template <typename... Values>
binder_status_t ReadAll([[maybe_unused]] const AParcel* from, Values*... values) {
  binder_status_t status = STATUS_OK;
  static_cast<void>((((status = ::ndk::AParcel_readData(from, values)) == STATUS_OK) && ...));
  return status;
}

// Calls a method and stores its results, which keep their value when it fails.
template <typename... Results, typename... Args>
::ndk::ScopedAStatus Call(const ::ndk::SpAIBinder& remote, transaction_code_t code,
                          std::tuple<Results*...> results, const Args&... args) {
  using ::ndk::ScopedAStatus;
  ::ndk::ScopedAParcel in;
  binder_status_t status = AIBinder_prepareTransaction(remote.get(), in.getR());
  if (status == STATUS_OK) status = WriteAll(in.get(), args...);
  if (status != STATUS_OK) return ScopedAStatus::fromStatus(status);
  ::ndk::ScopedAParcel out;
  AParcel* request = in.release();
  status = AIBinder_transact(remote.get(), code, &request, out.getR(), kCallFlags);
  if (status != STATUS_OK) return ScopedAStatus::fromStatus(status);
  ScopedAStatus answer;
  status = AParcel_readStatusHeader(out.get(), answer.getR());
  if (status != STATUS_OK) return ScopedAStatus::fromStatus(status);
  if (!answer.isOk()) return answer;
  status = std::apply([&](auto*... each) { return ReadAll(out.get(), each...); }, results);
  return status == STATUS_OK ? std::move(answer) : ScopedAStatus::fromStatus(status);
}

// Answers a request with the outcome of the method.
template <typename... Results>
binder_status_t Answer(AParcel* out, const ::ndk::ScopedAStatus& outcome,
                       const Results&... results) {
  if (outcome.get() == nullptr) return STATUS_UNEXPECTED_NULL;
  const binder_status_t status = AParcel_writeStatusHeader(out, outcome.get());
  return status == STATUS_OK && outcome.isOk() ? WriteAll(out, results...) : status;
}

// The local object behind the binder, or a proxy; null when the binder is null,
// dead or of another interface. Asks a remote binder, a blocking call.
template <typename Interface, typename Stub, typename Proxy>
std::shared_ptr<Interface> FromBinder(const ::ndk::SpAIBinder& binder) {
  if (!AIBinder_associateClass(binder.get(), Stub::Class())) return nullptr;
  std::shared_ptr<::ndk::ICInterface> local = ::ndk::ICInterface::asInterface(binder.get());
  if (local != nullptr) return std::static_pointer_cast<Interface>(local);
  return ::ndk::SharedRefBase::make<Proxy>(binder);
}

template <typename Interface>
binder_status_t WriteInterface(AParcel* parcel, const std::shared_ptr<Interface>& instance) {
  return AParcel_writeStrongBinder(parcel,
                                   instance == nullptr ? nullptr : instance->asBinder().get());
}

template <typename Interface>
binder_status_t ReadInterface(const AParcel* parcel, std::shared_ptr<Interface>* instance) {
  ::ndk::SpAIBinder binder;
  const binder_status_t status = AParcel_readStrongBinder(parcel, binder.getR());
  if (status == STATUS_OK) *instance = Interface::fromBinder(binder);
  return status;
}

}  // namespace aidl::vendor::nuv::orbsyshal_aidl::internal
