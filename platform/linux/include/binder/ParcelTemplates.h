// Parcel's member templates. Include <binder/Parcel.h> instead.
#pragma once

#include <binder/Parcel.h>

#include <limits>

namespace android {

template <typename T>
status_t Parcel::writeParcelableVector(const std::vector<T>& val) {
  if (val.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
  status_t status = writeInt32(static_cast<int32_t>(val.size()));
  for (const T& item : val) {
    if (status != OK) return status;
    status = writeParcelable(item);
  }
  return status;
}

template <typename T>
status_t Parcel::readStrongBinder(sp<T>* val) const {
  sp<IBinder> binder;
  const status_t status = readStrongBinder(&binder);
  if (status != OK) return status;
  *val = interface_cast<T>(binder);
  return *val == nullptr ? UNKNOWN_ERROR : OK;
}

template <typename T>
status_t Parcel::readParcelableVector(std::vector<T>* val) const {
  int32_t count = 0;
  status_t status = readInt32(&count);
  if (status != OK) return status;
  if (count < 0) return UNEXPECTED_NULL;
  if (static_cast<size_t>(count) > dataAvail()) return BAD_VALUE;
  val->resize(static_cast<size_t>(count));
  for (T& item : *val) {
    status = readParcelable(&item);
    if (status != OK) return status;
  }
  return OK;
}

}  // namespace android
