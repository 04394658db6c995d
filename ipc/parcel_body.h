// body := bytes:i32 field*                 bytes counts itself
//
// The encoding that every structured parcelable of this folder shares. The
// size lets peers of different age talk: a reader steps over fields that it
// does not know, and leaves fields that are not there at their defaults.
// Tested by tests/ipc/parcelable_test.cpp.
#pragma once

#include <binder/Parcel.h>

#include <cstddef>
#include <cstdint>
#include <limits>

#include "utility/checked.h"

namespace orb::ipc {

// Runs the field writers in order between the size prefix and its correction;
// each is a callable that returns a status_t. Stops at the first failure.
template <typename... Writers>
android::status_t WriteBody(android::Parcel* parcel, Writers... writers) {
  const size_t start = parcel->dataPosition();
  android::status_t status = parcel->writeInt32(0);
  static_cast<void>(status == android::OK && (((status = writers()) == android::OK) && ...));
  if (status != android::OK) return status;
  const size_t end = parcel->dataPosition();
  parcel->setDataPosition(start);
  status = parcel->writeInt32(CheckedCast<int32_t>(end - start));
  parcel->setDataPosition(end);
  return status;
}

// Runs the field readers in order while bytes of the body remain. BAD_VALUE for
// a size below its own width or past what a position can be. A reader's error
// is returned at once; otherwise the position is after the body then.
template <typename... Readers>
android::status_t ReadBody(const android::Parcel* parcel, Readers... readers) {
  const size_t start = parcel->dataPosition();
  int32_t bytes = 0;
  android::status_t status = parcel->readInt32(&bytes);
  if (status != android::OK) return status;
  if (bytes < static_cast<int32_t>(sizeof(bytes))) return android::BAD_VALUE;
  const size_t body_bytes = static_cast<size_t>(bytes);
  if (start > static_cast<size_t>(std::numeric_limits<int32_t>::max()) - body_bytes) {
    return android::BAD_VALUE;
  }
  const auto take = [&](auto& reader) {
    if (parcel->dataPosition() - start < body_bytes) status = reader();
    return status == android::OK;
  };
  static_cast<void>((take(readers) && ...));
  if (status != android::OK) return status;
  parcel->setDataPosition(start + body_bytes);
  return android::OK;
}

}  // namespace orb::ipc
