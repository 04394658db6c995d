// Reads and writes the body of a parcelable: an int32 size that counts itself, then the
// fields in order. A reader stops without an error where an older writer's fields end, and
// skips fields that a newer writer has added.
#pragma once

#include <android/binder_parcel.h>
#include <android/binder_parcel_utils.h>

#include <cstdint>

namespace orb_platform {

// Both return STATUS_OK or the first error. After an error the parcel is unusable.
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
