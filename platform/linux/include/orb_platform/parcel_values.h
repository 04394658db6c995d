// Single values in an NDK parcel. Include <android/binder_parcel_utils.h> instead.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_parcel.h>

#include <climits>
#include <string>

namespace ndk {

inline binder_status_t AParcel_writeString(AParcel* parcel, const std::string& value) {
  if (value.size() > INT32_MAX) return STATUS_BAD_VALUE;
  return ::AParcel_writeString(parcel, value.data(), static_cast<int32_t>(value.size()));
}

inline binder_status_t AParcel_readString(const AParcel* parcel, std::string* value) {
  const auto allocate = [](void* data, int32_t length, char** buffer) {
    if (length < 1) return false;
    auto* string = static_cast<std::string*>(data);
    string->resize(static_cast<size_t>(length) - 1);  // The terminator is the string's own.
    *buffer = string->data();
    return true;
  };
  return ::AParcel_readString(parcel, value, allocate);
}

inline binder_status_t AParcel_writeRequiredParcelFileDescriptor(AParcel* parcel,
                                                                 const ScopedFileDescriptor& fd) {
  if (fd.get() < 0) return STATUS_UNEXPECTED_NULL;
  return AParcel_writeParcelFileDescriptor(parcel, fd.get());
}

inline binder_status_t AParcel_readRequiredParcelFileDescriptor(const AParcel* parcel,
                                                                ScopedFileDescriptor* fd) {
  const binder_status_t status = AParcel_readParcelFileDescriptor(parcel, fd->getR());
  return status == STATUS_OK && fd->get() < 0 ? STATUS_UNEXPECTED_NULL : status;
}

template <typename T>
binder_status_t AParcel_writeParcelable(AParcel* parcel, const T& value) {
  const binder_status_t status = AParcel_writeInt32(parcel, 1);  // Not null.
  return status == STATUS_OK ? value.writeToParcel(parcel) : status;
}

template <typename T>
binder_status_t AParcel_readParcelable(const AParcel* parcel, T* value) {
  int32_t marker = 0;
  const binder_status_t status = AParcel_readInt32(parcel, &marker);
  if (status != STATUS_OK) return status;
  return marker == 1 ? value->readFromParcel(parcel) : STATUS_UNEXPECTED_NULL;
}

}  // namespace ndk
