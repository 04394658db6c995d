// Body of a parcelable: int32 size that counts itself, then the fields in
// order. A reader stops quietly where an older writer's fields end, and skips
// what a newer one has added.
#pragma once

#include <android/binder_parcel.h>
#include <android/binder_parcel_utils.h>

#include <cstdint>

namespace orb_platform {

// STATUS_OK, or the first error; then the parcel is of no use.
template <typename... Fields>
binder_status_t WriteSizedBody(AParcel* parcel, const Fields&... fields) {
  const int32_t start = AParcel_getDataPosition(parcel);
  binder_status_t status = AParcel_writeInt32(parcel, 0);
  // The fold stops at the first field that fails.
  static_cast<void>(
      ((status == STATUS_OK && (status = ::ndk::AParcel_writeData(parcel, fields)) == STATUS_OK) &&
       ...));
  if (status != STATUS_OK) return status;
  const int32_t end = AParcel_getDataPosition(parcel);
  status = AParcel_setDataPosition(parcel, start);
  if (status == STATUS_OK) status = AParcel_writeInt32(parcel, end - start);
  return status == STATUS_OK ? AParcel_setDataPosition(parcel, end) : status;
}

template <typename... Fields>
binder_status_t ReadSizedBody(const AParcel* parcel, Fields*... fields) {
  const int32_t start = AParcel_getDataPosition(parcel);
  int32_t size = 0;
  binder_status_t status = AParcel_readInt32(parcel, &size);
  if (status != STATUS_OK) return status;
  if (size < 4 || start > INT32_MAX - size) return STATUS_BAD_VALUE;
  const auto more = [&] { return AParcel_getDataPosition(parcel) - start < size; };
  static_cast<void>(
      ((more() && (status = ::ndk::AParcel_readData(parcel, fields)) == STATUS_OK) && ...));
  if (status != STATUS_OK) return status;
  return AParcel_setDataPosition(parcel, start + size);
}

}  // namespace orb_platform
